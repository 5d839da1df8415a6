#!/usr/bin/env bash
# Regenerates the seed corpus of fuzz_imx_reader in fuzz/corpus/imx_reader/: small containers,
# valid and hostile, each a few hundred bytes at most. Run from anywhere; needs only bash.
set -euo pipefail
export LC_ALL=C
out=$(cd "$(dirname "$0")" && pwd)/corpus/imx_reader
rm -rf "$out"
mkdir -p "$out"

byte() { printf "\\x$(printf %02x $(($1 & 255)))"; }
le16() { byte "$1"; byte $(($1 >> 8)); }
le64() { local i; for i in 0 1 2 3 4 5 6 7; do byte $(($1 >> (8 * i))); done; }

# imx NAME DATA [NAME DATA …]: a well-formed container, data laid out after the table.
imx() {
  local args=("$@") table=8 i offset
  for ((i = 0; i < ${#args[@]}; i += 2)); do table=$((table + 2 + ${#args[i]} + 16)); done
  printf 'IMX\0'; le16 2; le16 $((${#args[@]} / 2))
  offset=$table
  for ((i = 0; i < ${#args[@]}; i += 2)); do
    le16 ${#args[i]}; printf '%s' "${args[i]}"; le64 $offset; le64 ${#args[i + 1]}
    offset=$((offset + ${#args[i + 1]}))
  done
  for ((i = 1; i < ${#args[@]}; i += 2)); do printf '%s' "${args[i]}"; done
}

# span NAME OFFSET SIZE TRAILER: one entry pointing wherever it likes.
span() { printf 'IMX\0'; le16 2; le16 1; le16 ${#1}; printf '%s' "$1"; le64 "$2"; le64 "$3"; printf '%s' "$4"; }

imx > "$out/empty.imx"
imx "avatar/canon.f32" "0123456789abcdef" "idle.mp4" "movie" "manifest.json" '{"format":"x"}' \
  > "$out/avatar.imx"
imx "a/b/c.txt" "deep" "a/d" "side" "a//e" "doubled" "./f" "dotted" > "$out/nested.imx"
imx "link/x" "through a link" "real/up/input.imx" "overwrite" "file-link" "replaced" \
  "real/dotdot/x" "climb" > "$out/links.imx"
imx "x" "first" "x" "second" > "$out/duplicate.imx"
imx "a/b" "inner" "a" "file" > "$out/directory_then_file.imx"
imx "a" "file" "a/b" "inner" > "$out/file_then_directory.imx"
imx "ok" "1" "../escape" "2" > "$out/unsafe_dotdot.imx"
imx "ok" "1" "/abs" "2" > "$out/unsafe_absolute.imx"
imx "ok" "1" "a/.." "2" > "$out/unsafe_tail.imx"
imx "dir/" "x" > "$out/directory_name.imx"
imx $'caf\xc3\xa9' "composed" $'cafe\xcc\x81' "decomposed" > "$out/equivalent_names.imx"
imx $'\xff\xfe' "bad" > "$out/invalid_utf8.imx"
# cut_to FILE LENGTH: the container on standard input, cut to LENGTH bytes.
cut_to() { local whole; whole=$(mktemp); cat > "$whole"; head -c "$2" "$whole" > "$1"; rm -f "$whole"; }
imx "manifest.json" "{}" | cut_to "$out/truncated_name.imx" 20
imx "manifest.json" "{}" | cut_to "$out/truncated_span.imx" 30
imx "big" "0123456789" | cut_to "$out/truncated_data.imx" 35
span "m" -1 1 "" > "$out/offset_all_ones.imx"
span "m" 27 -1 "tail" > "$out/size_all_ones.imx"
span "m" 30 -3 "0123456789" > "$out/span_wraps.imx"
{ printf 'IMX\0'; le16 2; le16 65535; le16 1; printf 'a'; le64 0; le64 0; } > "$out/count_65535.imx"
{ printf 'IMX\0'; le16 3; le16 0; } > "$out/version_3.imx"
{ printf 'KIMX'; le16 2; le16 0; } > "$out/kimx.imx"
{ printf 'PK\3\4'; le16 20; le16 0; } > "$out/zip.imx"
printf 'IMX\0\2\0' > "$out/short_header.imx"
