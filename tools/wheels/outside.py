"""Libraries that a wheel expects on the system."""

# The oldest supported glibc.
GLIBC = (2, 28)

# glibc, and libgcc_s, which glibc depends on and loads itself.
OUTSIDE = frozenset(
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
