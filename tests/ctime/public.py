"""What may be public although it is computed from key text: each place with the reason."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
WALLET = ROOT / "src/tessaline/auth/wallet"

LIBSECP256K1 = "libsecp256k1"
PARSE = "parse"


@dataclass(frozen=True)
class Place:
    """One source line, by its beginning, whose branch may depend on a secret."""

    name: str
    file: str
    line: str
    why: str

    def number(self) -> int:
        """The number of the line, which must be unique, so that nothing else is excused."""
        lines = (WALLET / self.file).read_text().splitlines()
        found = [number for number, text in enumerate(lines, 1) if text.strip().startswith(self.line)]
        if len(found) != 1:
            raise LookupError(f"{self.file} has {len(found)} lines {self.line!r}; see {__file__}")
        return found[0]


PLACES = (
    Place(
        "prefix",
        "wallet_key.cpp",
        "if (difference != 0) return text;",
        "whether the text begins with 0x: two units decide at once, so it says nothing of a bare key",
    ),
    Place(
        "hexadecimal",
        "wallet_key.cpp",
        "if (!hexadecimal) return KeyRefusal{",
        "the verdict on all digits together",
    ),
    Place(
        "position",
        "wallet_key.cpp",
        "while (position < digits.length && read_hex_digit(unit_at(digits, position)).bad == 0) ++position;",
        "which character of a refused text is no digit: the error names it",
    ),
)

LINE_PLACES = {LIBSECP256K1, *(place.name for place in PLACES)}
ONCE_PER_TEXT = ("prefix", "hexadecimal")
FUNCTION_PLACES = {LIBSECP256K1, PARSE}


def suppression(name: str, *frames: str) -> str:
    # A branch is excused, an address never.
    return "\n".join(["{", f"   {name}", "   Memcheck:Cond", *(f"   {frame}" for frame in frames), "}", ""])


def of_the_library() -> str:
    """Debian's libsecp256k1 is built without the marks of its own constant-time tests, which make public
    whether a nonce is valid and whether signing succeeded. It branches on these while signing."""
    return suppression(LIBSECP256K1, "obj:*/libsecp256k1.so*", "fun:secp256k1_ecdsa_sign_recoverable")


def by_lines() -> str:
    """For code with line numbers."""
    places = [suppression(place.name, f"src:{place.file}:{place.number()}") for place in PLACES]
    return "".join([*places, of_the_library()])


def by_functions() -> str:
    """For a release, which has no line numbers: the one function that contains all the places."""
    parse = "fun:_ZN9tessaline4auth6wallet9WalletKey5parseENS1_7KeyTextE"
    return suppression(PARSE, parse) + of_the_library()
