#!/usr/bin/env bash
# The viewer in headless Chromium (Debian's chromium, driven by puppeteer-core
# from npm, which the set-up step below installs into the build tree).
VRIXDB=$1
NODE_DIR=$2 # where package.json is and node_modules goes
SHOT=$3     # the screenshot kept as the test's artifact
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
ROOT=$SCRATCH/store
run demo --root "$ROOT" --minutes 1
start_serve "$ROOT"
NODE_PATH=$NODE_DIR/node_modules node "$NODE_DIR/viewer.mjs" "$URL/" "$CHROMIUM" "$SHOT" ||
    fail "the viewer in chromium"
echo "browser: ok, screenshot in $SHOT"
