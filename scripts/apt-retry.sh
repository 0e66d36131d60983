# Sourced by the set-up scripts: apt-get calls that outlast a mirror in the
# middle of a sync, which for a while answers with files of the wrong size
# ("File has unexpected size ... Mirror sync in progress?"). Each step is
# tried APT_TRIES times (4) with APT_PAUSE seconds (40) in between; $sudo
# is the prefix for apt-get ("sudo" or empty).

apt_tries=${APT_TRIES:-4}
apt_pause=${APT_PAUSE:-40}

# Runs "$@" until it succeeds or the tries are used up; its last status.
apt_retry() {
  local try=1 status
  until "$@"; do
    status=$?
    if [ "$try" -ge "$apt_tries" ]; then
      echo "setup: $* failed $try times" >&2
      return $status
    fi
    echo "setup: $* failed, trying again in ${apt_pause}s" >&2
    sleep "$apt_pause"
    try=$((try + 1))
  done
}

apt_get() {
  ${sudo:+"$sudo"} apt-get "$@"
}

# Fetches the package lists. Failing is not the end: the lists fetched
# before may hold all that is needed, which the install or download that
# follows finds out.
apt_update() {
  apt_retry apt_get update -qq >/dev/null ||
    echo "setup: going on with the package lists there are" >&2
}

# One try of a command that fetches packages: when it fails, the lists are
# refreshed (they may name files the mirror no longer has) and it runs
# once more.
apt_refreshing() {
  "$@" 2>/dev/null && return 0
  apt_get update -qq >/dev/null 2>&1
  "$@"
}
