"""Client library of the networked service: the wallet authentication component is `tessaline.auth`."""

import sys

__version__ = "0.1.0"

if (
    sys.implementation.name != "cpython"
    # Also for a package that was put on the path of another Python.
    or sys.version_info < (3, 13)
    or sys.platform != "linux"
    or "t" in sys.abiflags
):
    raise ImportError(
        "tessaline runs on CPython 3.13 or later, with its global interpreter lock, on Linux, not on "
        f"{sys.implementation.name} {sys.version_info[0]}.{sys.version_info[1]}"
        f"{getattr(sys, 'abiflags', '')} on {sys.platform}"
    )
