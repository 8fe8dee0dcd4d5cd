#!/usr/bin/env bash
# The commands the README and the guides show work as written
# (docs_commands.py says how each is proven).
set -uo pipefail
command -v python3 >/dev/null || { echo "docs commands: python3 missing, skipped"; exit 0; }
exec python3 "$(dirname "$0")/docs_commands.py" "$AVRECORD_SOURCE_DIR" "$AVRECORD_BUILD_DIR"
