# Shared by the reliability loops (sourced, not run).

# file_set DIR: "name size" of every file in DIR, sorted.
file_set() { (cd "$1" && stat -c '%n %s' * | sort); }

# percentiles VALUE...: "P50 P99" of the values (0 0 without any).
percentiles() {
  local sorted count
  sorted=$(printf '%s\n' "${@:-0}" | sort -n)
  count=$(wc -l <<<"$sorted")
  echo "$(sed -n "$(((count + 1) / 2))p" <<<"$sorted") $(sed -n "$(((count * 99 + 99) / 100))p" <<<"$sorted")"
}
