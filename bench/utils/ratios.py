#!/usr/bin/env python3
"""Runs the record and converter benchmarks and prints each result as a ratio
to the peer measured in the same run (absolute times on shared machines drift).
CPU time is compared: on a loaded machine wall time mostly measures the wait for a core.

usage: ratios.py <build dir>   (the directory holding records_bench, convert_bench)
"""
import json
import os
import subprocess
import sys

PEERS = {
    "records_bench": {"": "BM_Peer_Memcpy1080p"},
    "convert_bench": {"YUV420p2BGR888": "BM_Peer_CvtColorI420Packed", "YUVNV122BGR888": "BM_Peer_CvtColorNV12Packed"},
}


def find(build, name):
    for root, _, files in os.walk(build):
        if name in files:
            return os.path.join(root, name)
    sys.exit(f"{name} not found under {build}")


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else "."
    for program, peers in PEERS.items():
        out = subprocess.run([find(build, program), "--benchmark_format=json", "--benchmark_repetitions=3",
                              "--benchmark_report_aggregates_only=true"], check=True, capture_output=True, text=True)
        medians = {b["run_name"]: b["cpu_time"] for b in json.loads(out.stdout)["benchmarks"]
                   if b.get("aggregate_name") == "median"}
        for name, t in medians.items():
            if name.startswith("BM_Peer_"):
                continue
            peer = next((p for key, p in peers.items() if key and key in name), peers.get(""))
            print(f"{name:32s} {t:10.1f} us  {t / medians[peer]:6.2f} x {peer} ({medians[peer]:.1f} us)")


if __name__ == "__main__":
    main()
