"""The paths of the server, and the names of the service's endpoints."""

# Requests to these are not counted and get no faults.
CONTROL_PREFIX = "/_control/"
DESCRIPTION_PATH = "/openapi.json"

ENDPOINTS = {
    "/auth/register": "register",
    "/auth/challenge": "challenge",
    "/auth/verify": "verify",
    "/api/profile/display_name": "display_name",
}


def endpoint_name(path: str) -> str:
    """The short name of the endpoint at `path`, or the path itself if it has none."""
    return ENDPOINTS.get(path, path)
