#!/usr/bin/env python3
"""check_exports.py MODULE LIST: fails unless the module exports exactly the names of the list."""
import subprocess
import sys

module, wanted_file = sys.argv[1:]
# On macOS a module has one table of symbols, elsewhere those for the loader stand apart.
choice = ["-g", "-U"] if sys.platform == "darwin" else ["-D", "--defined-only"]
output = subprocess.run(["nm", "-P", *choice, module], check=True, capture_output=True,
                        text=True).stdout
exported = {line.split()[0].split("@")[0] for line in output.splitlines()}
with open(wanted_file, encoding="utf-8") as lines:
    wanted = {line.strip() for line in lines if line.strip()}
for name in sorted(wanted - exported):
    print(f"not exported: {name}")
for name in sorted(exported - wanted):
    print(f"exported but not listed in {wanted_file}: {name}")
sys.exit(exported != wanted)
