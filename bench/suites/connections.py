"""Connections of one server of which one sends: local IPC beside TCP, TLS and pseudo-TCP."""
from measure import RATE, Case

PROGRAMS = {
    "ipc": "bench_zarn_ipc",
    "tcp": "bench_zarn_tcp",
    "tls": "bench_zarn_tls",
    "ptcp": "bench_zarn_ptcp",
}
NUMBERS = (1, 10, 100, 1000)


def make_cases():
    return [Case(f"{number} connection{'s' * (number > 1)}, 1 of them sends 64 B", RATE,
                 {name: [program, "oneway", "--size", "64", "--clients", str(number)]
                  for name, program in PROGRAMS.items()}, [])
            for number in NUMBERS]
