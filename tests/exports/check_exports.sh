#!/usr/bin/env bash
# libzel.so exports the public interface and nothing else: every symbol it
# exports is declared in include/zel/, and every symbol of the library's
# objects that include/zel/ declares is exported (inline functions aside:
# an application compiles its own).
#
# usage: check_exports.sh LIBZEL_SO LIBZEL_STATIC_A INCLUDE_DIR CXX
set -euo pipefail
export LC_ALL=C
shared=$1 archive=$2 include=$3 cxx=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The headers without their comments (the compiler's preprocessor drops them
# and leaves the includes alone), so that a name the documentation merely
# mentions does not count as declared.
cat "$include"/zel/*.h | "$cxx" -x c++ -fpreprocessed -dD -E -P - | grep -v '^#' > "$work/declarations"
# The names declared as functions (members included), and the classes the
# headers define; a forward declaration does not make a class public.
grep -oE '[A-Za-z_][A-Za-z0-9_]*[[:space:]]*\(' "$work/declarations" | tr -d '( \t' | sort -u > "$work/functions"
grep -oE '(class|struct)[[:space:]]+[A-Za-z_][A-Za-z0-9_]*[^;{]*\{' "$work/declarations" | awk '{ print $2 }' |
  sort -u > "$work/classes"

# Reads demangled symbol names and prints each as "public<TAB>name" or
# "internal<TAB>name".
classify() {
  awk -v functions="$work/functions" -v classes="$work/classes" '
    BEGIN {
      while ((getline name < functions) > 0) function_names[name]
      while ((getline name < classes) > 0) class_names[name]
    }
    function public(symbol,    name, parts, n) {
      sub(/^(non-virtual thunk|virtual thunk) to /, "", symbol)
      if (symbol ~ /^(vtable|typeinfo|typeinfo name|VTT) for /) {
        sub(/^.* for /, "", symbol)
        return symbol in class_names
      }
      name = symbol
      sub(/\(.*/, "", name)
      sub(/\[abi:[^]]*\]/, "", name)
      # A template instance, or a function shown with its result type: the
      # headers declare neither.
      if (name ~ /[<> ]/)
        return 0
      n = split(name, parts, "::")
      return n == 1 ? name in function_names : n == 2 && parts[1] in class_names
    }
    { print (public($0) ? "public" : "internal") "\t" $0 }'
}

# Defined global symbols, demangled, without address and type; the
# archive's weak functions (inline functions) are left out.
nm -D --defined-only -C "$shared" | sed -E 's/^[0-9a-f]+ [A-Za-z] //' | sort -u | classify > "$work/exported"
nm -g --defined-only -C "$archive" | sed -nE 's/^[0-9a-f]+ [^W] //p' | sort -u | classify > "$work/objects"

leaked=$(grep '^internal' "$work/exported" | cut -f2 || true)
missing=$(grep '^public' "$work/objects" | cut -f2 | comm -23 - <(cut -f2 "$work/exported"))

status=0
if [ -n "$leaked" ]; then
  echo "libzel.so exports symbols that include/zel/ does not declare:"
  sed 's/^/  /' <<<"$leaked"
  status=1
fi
if [ -n "$missing" ]; then
  echo "include/zel/ declares symbols that libzel.so does not export:"
  sed 's/^/  /' <<<"$missing"
  status=1
fi
[ "$status" -ne 0 ] || echo "libzel.so exports $(wc -l < "$work/exported") symbols, every one declared in include/zel/"
exit "$status"
