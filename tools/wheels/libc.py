"""The C libraries that wheels are for. They are the system's; everything else is linked statically."""

from dataclasses import dataclass

UNWINDER = "libgcc_s.so.1"


@dataclass(frozen=True)
class Libc:
    """A C library, and what follows from it for a wheel."""

    name: str
    """In triplets."""
    tag: str
    """In the tags of its wheels, without the machine."""
    compiled: str
    """For Zig, in place of the name."""
    glibc: tuple[int, int]
    """The newest version of glibc whose symbols may be imported."""
    needed: frozenset[str]
    """What each library needs, lest it has a copy of its own."""
    outside: frozenset[str]
    """What else it may need."""
    runtime: tuple[str, ...]
    """What is linked of the compiler's."""

    @property
    def has_unwinder(self) -> bool:
        return UNWINDER in self.needed


# It depends on libgcc_s, and loads it itself.
GLIBC = Libc(
    name="gnu",
    tag="manylinux_2_28",
    compiled="gnu.2.28",
    glibc=(2, 28),
    needed=frozenset({"libc.so.6", UNWINDER}),
    outside=frozenset(
        {
            "ld-linux-x86-64.so.2",
            "ld-linux-aarch64.so.1",
            "libanl.so.1",
            "libdl.so.2",
            "libm.so.6",
            "libmvec.so.1",
            "libpthread.so.0",
            "libresolv.so.2",
            "librt.so.1",
            "libutil.so.1",
        }
    ),
    runtime=("libc++", "libc++abi"),
)

# From 1.2.2 on, which PEP 656 cannot say.
MUSL = Libc(
    name="musl",
    tag="musllinux_1_2",
    compiled="musl",
    glibc=(0, 0),
    needed=frozenset({"libc.so"}),
    outside=frozenset(),
    runtime=("libc++", "libc++abi", "libunwind"),
)
