"""The one way in which the service says no."""


class Refusal(Exception):
    """An error answer: HTTP `status` and the text of its "error" key."""

    def __init__(self, status: int, error: str) -> None:
        super().__init__(error)
        self.status = status
        self.error = error
