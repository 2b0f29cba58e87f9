#!/usr/bin/env bash
# Makes the input files of the file tests with the real gzip and zstd tools:
# each compressed file beside the plain bytes it must read as.
# Usage: make_tool_files.sh OUTPUT_DIR
set -euo pipefail
rm -rf "$1"
mkdir -p "$1"
cd "$1"
# Random letters with LF, CR LF and lone CR line ends, empty lines, a line
# longer than the file object's 1 MiB buffer, and no end on the last line.
perl -e 'srand 7; my @ends = (("\n") x 8, "\r\n", "\r");
  print map({ chr 97 + rand 26 } 1 .. rand 130), $ends[rand 10] for 1 .. 30000;
  print "L" x 1500000, "\r\n\nthe last line has no end"' > lines.txt
# Binary data of sizes around the buffers: zlib's 8 KiB and 16 KiB, zstd's
# 131072, 131075 and 131591, the 1 MiB of the file object.
for n in 1 8191 8192 8193 16384 131072 131075 131591 1048575 1048576 1048577 2500000; do
  head -c "$n" /dev/urandom > "bin_$n.txt"
done
: > empty.txt
for f in *.txt; do
  gzip -n -c "$f" > "$f.gz"
  zstd -q -c "$f" > "$f.zst"
done
# Three parts of lines.txt made apart at other levels, with an empty one
# between: several members or frames that read as the one text. A zstd
# file may begin with a skippable frame (magic 0x184D2A50, four bytes).
parts() {
  head -c 1000000 lines.txt | $1 -1 -c
  head -c 1700000 lines.txt | tail -c 700000 | $1 -9 -c
  $1 -c < empty.txt
  tail -c +1700001 lines.txt | $1 -c
}
parts "gzip -n" > lines.txt.members.gz
{ printf '\x50\x2A\x4D\x18\x04\x00\x00\x00junk'; parts "zstd -q"; } > lines.txt.frames.zst
# Files that hold no member or frame at all.
: > empty.txt.nothing.gz
: > empty.txt.nothing.zst
touch done
