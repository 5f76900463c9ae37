#!/usr/bin/env bash
# solicd(8), solicctl(1), solicd-check-config(8) and solicd-trace(1) render without a warning,
# have their sections, and name every option and command the programs themselves list in --help.
source "$(dirname "$0")/packaging_lib.sh"
need_tools man

render() {
    MANWIDTH=80 man --warnings -l "$SOLICD_BUILD/packaging/man/$1" 2>"$work/$1.warnings"
}

check_page() {
    local page=$1 text
    shift
    [ -f "$SOLICD_BUILD/packaging/man/$page" ] || fail "$page not built"
    text=$(render "$page") || fail "man cannot render $page"
    if [ -s "$work/$page.warnings" ]; then
        cat "$work/$page.warnings"
        fail "$page renders with warnings"
    fi
    local want
    for want in "$@"; do
        grep -qF -- "$want" <<<"$text" || fail "$page does not mention: $want"
    done
    printf '%s\n' "$text" >"$work/$page.txt"
}

check_page solicd.8 NAME SYNOPSIS DESCRIPTION OPTIONS SIGNALS "EXIT STATUS" ENVIRONMENT FILES \
    EXAMPLES "SEE ALSO" \
    "-n, --namespace=NAMESPACE" "-i, --interface=IF" "-s, --source=MBOX_LOCAL" \
    "-d, --destination=MBOX_REMOTE" "-v, --verbose" "-h, --help" \
    "solicd: restart requested at FILE:LINE: TEXT" "status 70" "SIGINT, SIGTERM" \
    "SIGHUP, SIGQUIT" SIGPIPE LMX_DIR /run/lmx /var/run/netns/NAME /etc/solicd/NAME.conf \
    "systemctl enable --now solicd@NAME" com_orvane_kt_solicd solicd-trace NOTIFY_SOCKET \
    "Type=notify" "Entering network namespace NAMESPACE" "Waiting for a link-local address on IF" \
    "Waiting for the client mailbox MBOX_REMOTE" "Running: N routers, M prefixes, K DNS servers" \
    "solicd-check-config(8)" "exec-condition" "RestartSteps=" "solicd.target" "group lmx" "3770"
check_page solicctl.1 NAME SYNOPSIS DESCRIPTION COMMANDS OPTIONS "EXIT STATUS" ENVIRONMENT \
    FILES EXAMPLES "SEE ALSO" \
    "solicctl [--dir DIR] ls" "solicctl [--dir DIR] show MBOX" \
    "solicctl [--dir DIR] routers MBOX [--json]" \
    "solicctl [--dir DIR] watch MBOX [--json | --raw]" \
    "solicctl [--dir DIR] status MBOX [--json] [--timeout SEC]" "solicctl help [COMMAND]" \
    "solicctl [--dir DIR] hooks MBOX" "--dir DIR" --json --raw "--count N" "--timeout SEC" "-h, --help" \
    --version LMX_DIR NO_COLOR /run/lmx "request failed or timed out" "Usage error" router_updated \
    network_updated dns_servers_updated SOLICD_REASON RESYNC DNS_CHANGED new_dns_servers \
    /etc/solicd/hooks.d "solicctl [--dir DIR] health MBOX [--json]" solicd_ra_received_total --prometheus

check_page solicd-check-config.8 NAME SYNOPSIS DESCRIPTION CHECKS "EXIT STATUS" EXAMPLES "SEE ALSO" \
    ExecCondition= NAMESPACE INTERFACE SOURCE DESTINATION "solicd-check-config: FILE:LINE:" \
    "'exec-condition'"
check_page solicd-trace.1 NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" ENVIRONMENT EXAMPLES \
    "SEE ALSO" com_orvane_kt_solicd "--events LIST" "--filter EXPR" "-h, --help" INFO ERROR EXCEPTION LAB

# Whatever the programs offer must be documented: every long option of their help texts.
documents_help_of() {
    local page=$1 binary=$2 option
    shift 2
    "$binary" "$@" >"$work/help.txt" 2>&1 || fail "$binary $* does not exit 0"
    for option in $(grep -oE -- '--[a-z][a-z-]+' "$work/help.txt" | sort -u); do
        # GLib's own --help-all and --help-GROUP are not solicd's options.
        case "$option" in --help-*) continue ;; esac
        grep -qF -- "$option" "$work/$page.txt" || fail "$page does not document $option of '$binary $*'"
    done
}
documents_help_of solicd.8 "$SOLICD_BUILD/bin/solicd" --help
documents_help_of solicctl.1 "$SOLICD_BUILD/bin/solicctl" --help
documents_help_of solicd-check-config.8 "$SOLICD_BUILD/bin/solicd-check-config" --help
documents_help_of solicd-trace.1 "$SOLICD_SRC/scripts/solicd-trace" --help
for command in ls status health metrics show routers watch hooks; do
    documents_help_of solicctl.1 "$SOLICD_BUILD/bin/solicctl" "$command" --help
done
echo "PASS: solicd(8), solicctl(1), solicd-check-config(8) and solicd-trace(1) render cleanly and" \
    "cover every option"
