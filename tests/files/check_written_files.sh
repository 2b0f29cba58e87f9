#!/usr/bin/env bash
# Checks the files the file tests wrote, PREFIX_NAME.txt.*.MODE.EXT from the
# source NAME.txt, with the real tools: each must test as sound and
# decompress to the bytes of its source, in text mode with each LF as CR LF.
# Usage: check_written_files.sh SOURCE_DIR WRITTEN_DIR
set -euo pipefail
sources=$1
cd "$2"
checked=0
for file in *.bin.* *.text.*; do
  name=${file#*_}
  source=$sources/${name%%.txt*}.txt
  case $file in
    *.gz) gzip -t "$file"; gzip -dc "$file" > decoded ;;
    *.zst) zstd -q -t "$file"; zstd -q -dc "$file" > decoded ;;
    *) cp "$file" decoded ;;
  esac
  case $file in
    *.text.*) perl -pe 's/\n/\r\n/g' "$source" ;;
    *) cat "$source" ;;
  esac | cmp - decoded || { echo "FAIL $file: other bytes than its source"; exit 1; }
  checked=$((checked + 1))
done
echo "$checked files decoded by the tools to their expected bytes"
