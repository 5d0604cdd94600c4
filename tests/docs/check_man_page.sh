#!/usr/bin/env bash
# Fails when man warns about the page: check_man_page.sh PAGE
set -euo pipefail
command -v man >/dev/null || { echo "man is not installed"; exit 77; }
warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$1" 2>&1 >/dev/null)
echo "$warnings"
[ -z "$warnings" ]
