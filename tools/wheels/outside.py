"""Libraries that a wheel expects on the system."""

# The oldest supported ones; of musl 1.2 that is 1.2.2, which PEP 656 cannot say.
GLIBC = (2, 28)
MUSL = (1, 2)

# glibc, and libgcc_s, which glibc depends on and loads itself.
_GLIBC = frozenset(
    {
        "ld-linux-x86-64.so.2",
        "ld-linux-aarch64.so.1",
        "libanl.so.1",
        "libc.so.6",
        "libdl.so.2",
        "libgcc_s.so.1",
        "libm.so.6",
        "libmvec.so.1",
        "libpthread.so.0",
        "libresolv.so.2",
        "librt.so.1",
        "libutil.so.1",
    }
)

# By the names of C libraries in triplets: what may be needed, and what must be, lest it is linked statically.
OUTSIDE = {"gnu": _GLIBC, "musl": frozenset({"libc.so"})}
NEEDED = {"gnu": frozenset({"libc.so.6", "libgcc_s.so.1"}), "musl": OUTSIDE["musl"]}
