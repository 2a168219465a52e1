#!/usr/bin/env bash
# The main job on an embedded default: sets up and builds, makes a sample job (10 s of DV NTSC
# with 48 kHz stereo, carved-style raw files and a settings document), assembles it into a
# QuickTime movie with the helper as the main application would start it, and checks the
# movie with ffprobe and ffmpeg.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bash "$here/scripts/setup.sh"
bash "$here/scripts/build.sh" plain
build="$here/build/plain"
demo="$here/build/demo"
rm -rf "$demo"
mkdir -p "$demo/job" "$demo/home/Downloads"

# The helper reads its document from ~/Downloads/corvina.plist; the demo keeps its own home so
# that nothing of the user's is touched.
export HOME="$demo/home" TQ_CONSOLE_USER="" TQ_LOCAL_ROOT="$demo/home/root"
"$build/tools/make_sample_job/make_sample_job" --out "$demo/job" --video 0 --audio 2 --seconds 10 \
    --dest "$demo/movie.mov"
cp "$demo/job/settings.plist" "$HOME/Downloads/corvina.plist"

set +e
"$build/CorvinaAVFHelper"
status=$?
set -e
echo "CorvinaAVFHelper exited with status $status"
log=$(ls "$HOME"/Library/Logs/Brantwell/CorvinaAVFHelper.1.log "$TQ_LOCAL_ROOT"/Library/Logs/Brantwell/CorvinaAVFHelper.1.log 2>/dev/null | head -n1 || true)
if [ -n "$log" ]; then
  echo "--- first lines of the log ($log):"
  head -n 12 "$log"
  echo "--- session lines:"
  grep -v -E 'Requesting next|number of audio samples' "$log" | tail -n 30
fi
[ "$status" -eq 0 ] || exit "$status"

echo "--- ffprobe of $demo/movie.mov:"
ffprobe -v error -show_entries stream=index,codec_type,codec_tag_string,codec_name,width,height,time_base,nb_frames,sample_rate,channels,channel_layout,duration \
    -of default=nw=1 "$demo/movie.mov"
echo "--- full decode with ffmpeg:"
if ffmpeg -v error -nostdin -i "$demo/movie.mov" -f null - 2>"$demo/decode.err" && [ ! -s "$demo/decode.err" ]; then
  echo "decoded without errors"
else
  cat "$demo/decode.err"; exit 1
fi
