#!/usr/bin/env bash
# Makes the input files of the interoperability tests with the real gzip and
# zstd tools: each compressed file beside the plain bytes it must read back
# as. Usage: make_tool_files.sh OUTPUT_DIR
set -euo pipefail
out=$1
rm -rf "$out"
mkdir -p "$out"
cd "$out"

# Text with LF, CR LF and lone CR line ends, empty lines, a line longer than
# the file object's 1 MiB buffer, and a last line without an end.
awk 'BEGIN {
  srand(7)
  for (i = 0; i < 30000; i++) {
    n = int(rand() * 130); line = ""
    for (j = 0; j < n; j++) line = line sprintf("%c", 97 + int(rand() * 26))
    e = int(rand() * 10)
    if (e == 0) printf "%s\r\n", line; else if (e == 1) printf "%s\r", line; else printf "%s\n", line
  }
}' > lines.txt
head -c 1500000 /dev/zero | tr '\0' 'L' >> lines.txt
printf '\r\n\nthe last line has no end' >> lines.txt

# Binary data of sizes around the buffers: zlib's 8 KiB and 16 KiB, zstd's
# 131072, 131075 and 131591, the 1 MiB of the file object.
for n in 1 8191 8192 8193 16384 131072 131075 131591 1048575 1048576 1048577 2500000; do
  head -c "$n" /dev/urandom > "bin_$n.txt"
done
: > empty.txt

for f in *.txt; do
  gzip -n -6 -c "$f" > "$f.gz"
  zstd -q -c "$f" > "$f.zst"
done

# Several members and frames, made apart and concatenated: they read as one.
head -c 1000000 lines.txt > part1
head -c 1700000 lines.txt | tail -c 700000 > part2
tail -c +1700001 lines.txt > part3
cat part1 part2 part3 | cmp - lines.txt
{ gzip -n -c part1; gzip -n -9 -c part2; gzip -n -c empty.txt; gzip -n -1 -c part3; } > lines.txt.members.gz
{ zstd -q -c part1; zstd -q -19 -c part2; zstd -q -c empty.txt; zstd -q -1 -c part3; } > lines.txt.frames.zst
rm -f part1 part2 part3

# Empty files that hold no member or frame at all.
: > empty.txt.nothing.gz
: > empty.txt.nothing.zst
touch done
