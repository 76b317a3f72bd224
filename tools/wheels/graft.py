"""auditwheel that leaves less outside: its policies count zlib, libstdc++ and some of the desktop's libraries
as present everywhere. Takes auditwheel's arguments."""

from __future__ import annotations

import json
import sys
import tempfile
from pathlib import Path

import auditwheel.policy
from auditwheel.libc import Libc
from auditwheel.main import main

from .outside import OUTSIDE

if __name__ == "__main__":
    policies = json.loads(auditwheel.policy._POLICY_JSON_MAP[Libc.GLIBC].read_text())
    for policy in policies:
        policy["lib_whitelist"] = sorted(OUTSIDE.intersection(policy["lib_whitelist"]))
        policy["blacklist"] = {}
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder, "policy.json")
        path.write_text(json.dumps(policies))
        auditwheel.policy._POLICY_JSON_MAP[Libc.GLIBC] = path
        sys.exit(main())
