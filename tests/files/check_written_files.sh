#!/usr/bin/env bash
# Checks the files the file object wrote (listed in DIR/manifest.txt as
# "file expected") with the real tools: each must test as sound and
# decompress to exactly its expected bytes. Usage: check_written_files.sh DIR
set -euo pipefail
dir=$1
cd "$dir"
[ -s manifest.txt ] || { echo "no manifest: the writer did not run"; exit 1; }
failed=0
checked=0
while read -r file expected; do
  case "$file" in
    *.gz) gzip -t "$file" && gzip -dc "$file" > decoded.tmp ;;
    *.zst) zstd -q -t "$file" && zstd -q -dc "$file" > decoded.tmp ;;
    *) cp "$file" decoded.tmp ;;
  esac || { echo "FAIL $file: the tool refused it"; failed=1; continue; }
  if cmp -s decoded.tmp "$expected"; then
    checked=$((checked + 1))
  else
    echo "FAIL $file: decodes to other bytes than $expected"; failed=1
  fi
done < manifest.txt
rm -f decoded.tmp
echo "$checked files decoded by the tools to their expected bytes"
exit $failed
