"""libvantrel.so exports exactly the functions its public headers mark VANTREL_API."""
import re
import subprocess
import sys

library, headers = sys.argv[1], sys.argv[2:]
declared = set()
for header in headers:
    with open(header) as f:
        declared |= set(re.findall(r"^VANTREL_API\s[^;(]*?\b(\w+)\s*\(", f.read(), re.M))
nm = subprocess.run(["nm", "-D", "--defined-only", library], capture_output=True, text=True, check=True)
# "address type name@@version"; the version node itself is an absolute symbol.
exported = {fields[2].split("@")[0] for fields in map(str.split, nm.stdout.splitlines()) if fields[1] != "A"}
for name in sorted(exported - declared):
    print("exported but not in the C interface:", name)
for name in sorted(declared - exported):
    print("declared but not exported:", name)
sys.exit(1 if exported != declared or len(declared) < 100 else 0)
