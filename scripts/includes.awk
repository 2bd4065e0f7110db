# Holds every #include of a tracked header against scripts/includes.txt.
# Reads that table, then lines of `git grep -n`; files holds the tracked headers, one a line.

function normal(path,    parts, n, i, kept, out) {
  n = split(path, parts, "/")
  kept = 0
  for (i = 1; i <= n; i++) {
    if (parts[i] == "." || parts[i] == "") continue
    if (parts[i] == ".." && kept > 0) kept--
    else stack[++kept] = parts[i]
  }
  out = stack[1]
  for (i = 2; i <= kept; i++) out = out "/" stack[i]
  return out
}

# The tracked header that an include means; empty for one that is not ours.
function resolve(from, name, quoted,    dir, candidate, i) {
  dir = from
  sub(/[^\/]*$/, "", dir)
  if (quoted && (candidate = normal(dir name)) in tracked) return candidate
  if (name in tracked) return name
  for (i = 1; i <= count; i++)
    if (substr(header[i], length(header[i]) - length(name)) == "/" name) {
      if (quoted || header[i] == "platform/root_folder/include/" name || header[i] == "platform/host/include/" name || header[i] == "platform/qvr/include/" name) return header[i]
    }
  return ""
}

# The floor of a file of bthal/1.1/: its folder's, or its own.
function floor_of(path,    name) {
  name = path
  sub(/^bthal\/1\.1\//, "", name)
  sub(/[\/.].*$/, "", name)
  if (name in floor) return floor[name]
  if (path ~ /^bthal\/1\.1\/[^\/]*$/) return top + 1
  refuse(path ": its folder has no floor in scripts/includes.txt")
  return 0
}

function refuse(text) { print text; bad = 1 }

BEGIN {
  count = split(files, header, "\n")
  for (i = 1; i <= count; i++) tracked[header[i]] = 1
}

FNR == NR {
  if ($1 == "allow") for (i = 3; i <= NF; i++) allowed[$2, $i] = 1
  if ($1 == "floor") {
    top++
    for (i = 2; i <= NF; i++) floor[$i] = top
  }
  next
}

{
  split($0, place, ":")
  from = place[1]
  where = from ":" place[2]
  if (!match($0, /["<][^">]+[">]/)) next
  quoted = substr($0, RSTART, 1) == "\""
  to = resolve(from, substr($0, RSTART + 1, RLENGTH - 2), quoted)
  if (to == "") next

  area = substr(from, 1, index(from, "/") - 1)
  target = substr(to, 1, index(to, "/") - 1)
  folder = to
  sub(/\/[^\/]*$/, "", folder)
  if (area != target && !((area, target) in allowed) && !((area, folder) in allowed)) refuse(where ": " area "/ may not include " to)
  if (area != "bthal" || target != "bthal") next

  if (floor_of(to) > floor_of(from)) refuse(where ": may not include " to ", which is on a higher floor")
}

END { exit bad }
