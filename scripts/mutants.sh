#!/usr/bin/env bash
# Breaks the code on purpose, one realistic fault at a time, and checks that
# the suite notices. For each mutant: apply one substitution to one source
# file, rebuild, run ctest, record which tests failed, restore the file.
#
#   bash scripts/mutants.sh [BUILD_DIR] [NAME_PATTERN]
#   QUICK=1  stop ctest at the first failure (a yes/no answer, faster)
#
# Prints "<name>: caught by <tests>" or "<name>: MISSED" per mutant; exits 1
# when a mutant was missed. Work on a scratch clone: the sources are edited.
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
only=${2:-.}

# name | file | perl substitution (applied once)
mutants=$(cat <<'LIST'
ring_off_by_one|src/watchdog/std_capture.cpp|s/ring\.head \+= drop;/ring.head += drop + 1;/
swapped_fds|src/watchdog/launcher.cpp|s/child_redirect\(pipes\[1\]\.rd, pipes\[1\]\.wr, 1\)/child_redirect(pipes[1].rd, pipes[1].wr, 2)/
dropped_amend|src/watchdog/instance.cpp|s/inst->cnt\+\+;\n    inst->amend\+\+;/inst->cnt++;/
dropped_app_amend|src/watchdog/ctl_setfield.cpp|s/record\.amend\+\+;//
dropped_fast_respawn|src/watchdog/app_life.cpp|s/\+\+record\.fast_respawn_cnt >/record.fast_respawn_cnt >/
unknown_is_no_app|src/watchdog/ctl_setfield.cpp|s/return CTL_RET_UNKNOWN;/return CTL_RET_NO_APP;/
lib_sort_order|src/client/vantrel_lib.cpp|s/strcasecmp\(a->name, b->name\) < 0/strcasecmp(a->name, b->name) > 0/
getapps_order|src/watchdog/ctl_status_methods.cpp|s/for \(int type = 1; type < APP_TYPES_CNT; type\+\+\) \{\n(\s*)xmlrpc_value\* name = xmlrpc_string_new\(env, app_types\[type\]/for (int type = APP_TYPES_CNT - 1; type >= 1; type--) {\n$1xmlrpc_value* name = xmlrpc_string_new(env, app_types[type]/
conf_line_newline|src/watchdog/conf_writer.cpp|s/fputs\("--autorun=1\\n", f\)/fputs("--autorun=1", f)/
usage_newline|src/watchdog/options.cpp|s/"    --log-rotate-interval=<INT>\\n"/"    --log-rotate-interval=<INT>"/
fault_text|src/common/xmlrpc_fault_guard.cpp|s/it does not represent a 64 bit integer/it does not represent an integer/
slot_limit|src/watchdog/instance.cpp|s/if \(inst->cnt >= APPS_MAX\) return -ENOMEM;/if (inst->cnt > APPS_MAX - 2) return -ENOMEM;/
backup_name|src/watchdog/conf_backup.cpp|s/std::to_string\(sec\) \+ "\." \+/std::to_string(sec) + "_" +/
client_param_order|src/client/vantrel_lib.cpp|s/m_rename_item, "\(ss\)", or_empty\(from\),\n(\s*)or_empty\(to\)/m_rename_item, "(ss)", or_empty(to),\n$1or_empty(from)/
decoder_member|src/client/vantrel_io.cpp|s/"cookie", cookie\.out\(\), "loop"/"cookies", cookie.out(), "loop"/
log_level|src/watchdog/ctl_setfield.cpp|s/LOG_INFO, "%s: will reboot"/LOG_ERROR, "%s: will reboot"/
element_port|src/watchdog/ctl_status_methods.cpp|s/\{21, 36001\}/{21, 36000}/
term_signal|src/watchdog/app_life.cpp|s/os_kill_group\(record\.pid, SIGINT\)/os_kill_group(record.pid, SIGTERM)/
std_chunk|src/watchdog/ctl_output_methods.cpp|s/start \+ CTL_STD_CHUNK_MAX :/start + CTL_STD_CHUNK_MAX - 1 :/
sched_sort|src/client/vantrel_sched.cpp|s/(selection_sort\(items, count, \[\]\(const vantrel_sched_item\* a, const vantrel_sched_item\* b\) \{\n\s*return [^;]*?)</$1>/
splice_ring_tail|src/watchdog/std_capture.cpp|s/at \+ n - static_cast<off_t>\(tail\)/at + n - static_cast<off_t>(tail) - 1/
status_reuse_rows|src/watchdog/ctl_status_methods.cpp|s/ \|\| cache\.rows != rows\) return nullptr;/) return nullptr;/
LIST
)

missed=0
while IFS='|' read -r name file expr; do
  [ -z "$name" ] && continue
  [[ "$name" =~ $only ]] || continue
  cp "$file" "$file.orig"
  perl -0pi -e "$expr" "$file"
  if cmp -s "$file" "$file.orig"; then
    echo "$name: NOT APPLIED (pattern not found in $file)"
    mv "$file.orig" "$file"; touch "$file"; missed=$((missed + 1)); continue
  fi
  if ! cmake --build "$build" -j"$(nproc)" >"/tmp/mutant-$name.build.log" 2>&1; then
    echo "$name: caught by the build"
  else
    args=(--test-dir "$build" -j"$(nproc)" --timeout 300)
    [ -n "${QUICK:-}" ] && args+=(--stop-on-failure)
    ctest "${args[@]}" >"/tmp/mutant-$name.log" 2>&1
    failed=$(grep -E '^\s+[0-9]+ - .* \((Failed|Timeout|SEGFAULT|Subprocess aborted|Child aborted|Exception)' \
      "/tmp/mutant-$name.log" | sed -E 's/^\s+[0-9]+ - ([^ ]+).*/\1/' | paste -sd' ' -)
    if [ -n "$failed" ]; then echo "$name: caught by $failed"
    else echo "$name: MISSED"; missed=$((missed + 1)); fi
  fi
  mv "$file.orig" "$file"
  touch "$file"   # newer than the mutant's object, so the next build takes it
done <<<"$mutants"
cmake --build "$build" -j"$(nproc)" >/dev/null 2>&1
echo "mutants missed: $missed"
[ "$missed" -eq 0 ]
