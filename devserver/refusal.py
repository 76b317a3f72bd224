"""The service's error responses."""


class Refusal(Exception):
    """An error response: HTTP `status` and the text of its "error" key."""

    def __init__(self, status: int, error: str) -> None:
        super().__init__(error)
        self.status = status
        self.error = error
