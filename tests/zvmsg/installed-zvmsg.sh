#!/usr/bin/env bash
# Installs the build tree into a scratch prefix and drives the installed zvmsg
# on the hand-written blocks of tests/data/flat and on corrupted copies of
# them. Prints one line per check and ends with "N passed, M failed".
#
# usage: installed-zvmsg.sh BUILD_DIR SOURCE_DIR WORK_DIR
set -u
build=$1
source=$2
work=$3

rm -rf "$work"
mkdir -p "$work"
if ! cmake --install "$build" --prefix "$work/prefix" >"$work/install.log" 2>&1; then
    cat "$work/install.log"
    echo "0 passed, 1 failed"
    exit 1
fi
zvmsg=$work/prefix/bin/zvmsg
passed=0
failed=0

ok() { passed=$((passed + 1)); echo "ok: $1"; }
bad() { failed=$((failed + 1)); echo "FAILED: $1"; }

# Turns a commented .hex file into its bytes.
hex2bin() {
    sed 's/#.*//' "$1" | tr -s ' \t' '\n\n' | grep -E '^[0-9A-Fa-f]{2}$' |
        while read -r byte; do printf "\\x$byte"; done
}

# run NAME EXPECTED_STATUS COMMAND...: runs the command with out/err in
# $work/out and $work/err and checks its exit status.
run() {
    local name=$1 expected=$2
    shift 2
    "$@" >"$work/out" 2>"$work/err"
    local status=$?
    if [ "$status" -eq "$expected" ]; then
        ok "$name (exit $status)"
        return 0
    fi
    bad "$name: exit $status, expected $expected; stderr: $(head -c 300 "$work/err")"
    return 1
}

# contains NAME FILE TEXT: the file holds the text.
contains() {
    if grep -qF -- "$3" "$2"; then ok "$1"; else bad "$1: '$3' not in: $(head -c 300 "$2")"; fi
}

same() {
    if cmp -s "$2" "$3"; then ok "$1"; else bad "$1: $2 and $3 differ"; fi
}

data=$source/tests/data/flat
hex2bin "$data/big-int32.hex" >"$work/big-int32.bin"
hex2bin "$data/little-int32.hex" >"$work/little-int32.bin"
hex2bin "$data/big-families.hex" >"$work/big-families.bin"
[ "$(stat -c %s "$work/big-families.bin")" -eq 301 ] && ok "golden block has 301 bytes" ||
    bad "golden block size"

# Help and command-line errors.
run "help" 0 "$zvmsg" --help && contains "help names the exit statuses" "$work/out" "exit status"
run "help command" 0 "$zvmsg" help
run "no command" 2 "$zvmsg"
run "unknown command" 2 "$zvmsg" frobnicate && contains "unknown command named" "$work/err" "unknown command 'frobnicate'"
run "unknown option" 2 "$zvmsg" dump --bogus "$work/big-int32.bin"
run "no file" 2 "$zvmsg" check
run "convert without --to" 2 "$zvmsg" convert "$work/big-int32.bin" -o "$work/x.bin"
run "convert without -o" 2 "$zvmsg" convert --to little "$work/big-int32.bin"
run "bad order" 2 "$zvmsg" convert --to middle "$work/big-int32.bin" -o "$work/x.bin"

# check on the golden blocks.
run "check big families" 0 "$zvmsg" check "$work/big-families.bin" &&
    contains "check says big-endian" "$work/out" "big-families.bin: ok, big-endian, 15 fields, 301 bytes"
run "check little int32" 0 "$zvmsg" check "$work/little-int32.bin" &&
    contains "check says little-endian" "$work/out" "ok, little-endian, 1 fields, 26 bytes"
run "check from standard input" 0 "$zvmsg" check - <"$work/big-int32.bin" &&
    contains "standard input named" "$work/out" "(standard input): ok, big-endian"

# dump as PrintToStream prints (this machine is little-endian: the value's
# bytes print in its order).
run "dump big int32" 0 "$zvmsg" dump "$work/big-int32.bin"
printf "BEGIN WHAT: 'test' 0x74657374, COUNT: 1\n\n ITEM: 'n', TYPE: 'SI32' 0x53493332, SIZE: 4\n  0x07,0x00,0x00,0x00,\nEND\n" >"$work/expected-dump"
same "dump prints the message dump" "$work/out" "$work/expected-dump"
run "dump little int32" 0 "$zvmsg" dump "$work/little-int32.bin"
same "both orders dump alike" "$work/out" "$work/expected-dump"
run "dump two files" 0 "$zvmsg" dump "$work/big-int32.bin" "$work/little-int32.bin" &&
    contains "dump heads each file" "$work/out" "==> $work/little-int32.bin <=="

# JSON dump and back, exact.
for name in big-int32 little-int32 big-families; do
    run "dump --json $name" 0 "$zvmsg" dump --json "$work/$name.bin" &&
        cp "$work/out" "$work/$name.json"
    run "from-json $name" 0 "$zvmsg" from-json "$work/$name.json" -o "$work/$name.back"
    same "JSON round trip of $name is exact" "$work/$name.bin" "$work/$name.back"
done
contains "JSON names the byte order" "$work/big-families.json" '"byte_order": "big"'
contains "JSON nests messages" "$work/big-families.json" '"message": {'
contains "JSON gives typed values" "$work/big-families.json" '"value": -100000'
contains "JSON gives raw bytes as hex" "$work/big-families.json" '"hex": "01020304"'
run "from-json from standard input" 0 "$zvmsg" from-json - -o "$work/stdin.back" <"$work/big-int32.json"
same "from-json of standard input" "$work/big-int32.bin" "$work/stdin.back"
run "from-json to standard output" 0 "$zvmsg" from-json "$work/big-int32.json"
same "from-json writes standard output" "$work/big-int32.bin" "$work/out"
run "from-json --to little" 0 "$zvmsg" from-json --to little "$work/big-int32.json" -o "$work/to-little.bin"
same "from-json --to little" "$work/little-int32.bin" "$work/to-little.bin"

# convert.
run "convert big to little" 0 "$zvmsg" convert --to little "$work/big-int32.bin" -o "$work/conv.bin"
same "converted block is the little-endian golden block" "$work/little-int32.bin" "$work/conv.bin"
run "convert families to little" 0 "$zvmsg" convert --to little "$work/big-families.bin" -o "$work/fam-l.bin"
run "check converted families" 0 "$zvmsg" check "$work/fam-l.bin" &&
    contains "converted families read little-endian" "$work/out" "ok, little-endian, 15 fields"
run "convert families back" 0 "$zvmsg" convert --to big "$work/fam-l.bin" -o "$work/fam-b.bin"
same "big -> little -> big is exact" "$work/big-families.bin" "$work/fam-b.bin"
run "dump converted families as JSON" 0 "$zvmsg" dump --json "$work/fam-l.bin"
sed 's/"byte_order": "little"/"byte_order": "big"/' "$work/out" >"$work/fam-l.json"
same "both orders give the same document" "$work/big-families.json" "$work/fam-l.json"
run "convert to the same order" 0 "$zvmsg" convert --to big "$work/big-families.bin" -o -
same "same order copies the block" "$work/big-families.bin" "$work/out"
run "convert into a missing folder" 3 "$zvmsg" convert --to little "$work/big-int32.bin" -o "$work/no/such/dir/x.bin"

# An empty message reads both ways.
printf 'test\0\0\0\0\0\0\0\0' >"$work/empty.bin"
run "check empty message" 0 "$zvmsg" check "$work/empty.bin" &&
    contains "empty message is either order" "$work/out" "either byte order"
run "dump empty message" 0 "$zvmsg" dump "$work/empty.bin" &&
    contains "dump notes the ambiguity" "$work/err" "both byte orders"
run "dump empty message --from big" 0 "$zvmsg" dump --from big "$work/empty.bin" &&
    contains "--from big reads what big-endian" "$work/out" "0x74657374"

# Corrupted blocks: the first error's offset and reason.
head -c 100 "$work/big-families.bin" >"$work/cut.bin"
run "check truncated" 1 "$zvmsg" check "$work/cut.bin" &&
    contains "truncated: count at byte 8" "$work/err" "invalid at byte 8: item count 15 cannot fit"
cp "$work/big-int32.bin" "$work/size.bin"
printf '\x09' | dd of="$work/size.bin" bs=1 seek=21 conv=notrunc status=none
run "check overlong size" 1 "$zvmsg" check "$work/size.bin" &&
    contains "overlong size at byte 18" "$work/err" "invalid at byte 18: record 1 of 1: data size 9 runs past the end"
{ cat "$work/big-int32.bin"; printf '\0'; } >"$work/trailing.bin"
run "check trailing byte" 1 "$zvmsg" check "$work/trailing.bin" &&
    contains "trailing byte at 26" "$work/err" "invalid at byte 26: 1 bytes follow the end of the block"
cp "$work/big-families.bin" "$work/nested.bin"
printf '\x02' | dd of="$work/nested.bin" bs=1 seek=288 conv=notrunc status=none
run "check corrupted nested message" 1 "$zvmsg" check "$work/nested.bin" &&
    contains "nested count at byte 285" "$work/err" "invalid at byte 285: item count 2"
cp "$work/big-int32.bin" "$work/name.bin"
printf 'xxxxxxxxxx' | dd of="$work/name.bin" bs=1 seek=17 conv=notrunc status=none
run "check unterminated name" 1 "$zvmsg" check "$work/name.bin" &&
    contains "name at byte 16" "$work/err" "invalid at byte 16: record 1 of 1: the name has no terminator"
: >"$work/zero.bin"
run "check empty file" 1 "$zvmsg" check "$work/zero.bin" &&
    contains "empty file at byte 0" "$work/err" "invalid at byte 0"
run "check good and bad" 1 "$zvmsg" check "$work/big-int32.bin" "$work/cut.bin" &&
    contains "good file still reported" "$work/out" "big-int32.bin: ok"
run "check missing file" 3 "$zvmsg" check "$work/missing.bin" "$work/cut.bin"
run "dump corrupted" 1 "$zvmsg" dump "$work/size.bin"
run "dump --json corrupted" 1 "$zvmsg" dump --json "$work/nested.bin"
run "convert corrupted" 1 "$zvmsg" convert --to little "$work/cut.bin" -o "$work/x.bin"
run "check --from little on a big block" 1 "$zvmsg" check --from little "$work/big-int32.bin" &&
    contains "forced order is reported" "$work/err" "(read as little-endian)"

# Bad JSON.
echo '{"what": 1, "fields": [' >"$work/broken.json"
run "from-json of broken JSON" 1 "$zvmsg" from-json "$work/broken.json" -o "$work/x.bin" &&
    contains "broken JSON named" "$work/err" "not a JSON document"
echo '{"what": 1, "fields": [{"name": "n", "type": "SI08", "value": 300}]}' >"$work/range.json"
run "from-json of an out-of-range value" 1 "$zvmsg" from-json "$work/range.json" -o "$work/x.bin" &&
    contains "path of the bad value" "$work/err" '$.fields[0].value: integer out of range'
echo '[{"what": 1}]' >"$work/array.json"
run "from-json of an array" 1 "$zvmsg" from-json "$work/array.json" -o "$work/x.bin"
echo '{"what": "test", "fields": [{"name": "n", "type": "SI32", "value": 7}], "flags": 2, "byte_order": "big"}' >"$work/hand.json"
run "from-json of a hand-written document" 0 "$zvmsg" from-json "$work/hand.json" -o "$work/hand.bin"
same "hand-written document builds the golden block" "$work/big-int32.bin" "$work/hand.bin"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
