# Shared by the benchmarks (sourced, WORK set): no tracing session reaches the processes they
# measure. Those start in a mount namespace where the session daemon's directory is hidden (a
# session of another run enabling the daemon's events would make it format every trace), and look
# for a per-user session daemon in the scratch directory only.
export LTTNG_UST_REGISTER_TIMEOUT=0
export LTTNG_HOME=$WORK
# A command prefix, not a function: each step execs the next, so $! is the measured process's pid.
UNTRACED=(unshare --mount --propagation private -- sh -c
    'for d in /run/lttng /var/run/lttng; do [ ! -d "$d" ] || mount -t tmpfs -o size=1m tmpfs "$d"; done
     exec "$@"' untraced)
