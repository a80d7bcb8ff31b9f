#!/usr/bin/env bash
# The viewer in headless Chromium (Debian's chromium, driven by puppeteer-core
# from npm, which the set-up step below installs into the build tree).
VRIXDB=$1
NODE_DIR=$2 # where package.json is and node_modules goes
SHOT=$3     # the screenshot kept as the test's artifact
CLIP=$4     # H.264 recorded while the page is open
. "$(dirname "$0")/lib.sh"
CHROMIUM=$(command -v chromium || command -v chromium-browser) || {
    echo "chromium is not installed: the browser test is skipped"
    exit 77
}
command -v npm >/dev/null || { echo "node/npm are not installed: the browser test is skipped"; exit 77; }
has_subcommand serve || { echo "vrixdb was built without serve: skipped"; exit 77; }
# Set-up: the browser driver, and no browser of its own.
if [ ! -d "$NODE_DIR/node_modules/puppeteer-core" ]; then
    (cd "$NODE_DIR" && PUPPETEER_SKIP_DOWNLOAD=1 npm install --no-audit --no-fund --loglevel=error) ||
        fail "npm install puppeteer-core"
fi
clear_queues
# A zone with summer time: the demo's June day is in the other offset than
# the days the test runs on from November to March.
export TZ=Europe/Berlin
ROOT=$SCRATCH/store
run demo --root "$ROOT" --minutes 1
start_serve "$ROOT"
NODE_PATH=$NODE_DIR/node_modules node "$NODE_DIR/viewer.mjs" "$URL/" "$CHROMIUM" "$SHOT" \
    "$VRIXDB" record-h264 --root "$ROOT" --ch 5 --start now "$CLIP" ||
    fail "the viewer in chromium"
echo "browser: ok, screenshot in $SHOT"
