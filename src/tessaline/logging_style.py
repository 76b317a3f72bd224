"""How the package writes to the log: one hook, called wherever a library surface has something to report."""

TYPE_CHECKING = False
if TYPE_CHECKING:
    import logging
    from collections.abc import Mapping

__all__ = ["log_library_surface_event"]

_logger: "logging.Logger | None" = None


def _library_logger() -> "logging.Logger":
    """The logger "tessaline", silent until the host configures logging."""
    global _logger
    if _logger is None:
        # Imported on first use: it would cost more than the whole of `import tessaline.auth`.
        import logging

        logger = logging.getLogger("tessaline")
        if not any(isinstance(handler, logging.NullHandler) for handler in logger.handlers):
            logger.addHandler(logging.NullHandler())
        _logger = logger
    return _logger


def log_library_surface_event(
    surface: str,
    level: str,
    *,
    sub_service: str | None = None,
    component: str | None = None,
    metadata: "Mapping[str, object] | None" = None,
    source_function: str | None = None,
    source_file: str | None = None,
    source_line: int | None = None,
) -> None:
    """Report an event of a library surface through the standard `logging` module.

    Args:
        surface: What the event belongs to, for a person; it begins the message.
        level: Name of a standard level in any case ("error"); an unknown one counts as "error".
        sub_service: Part of the package that reports, such as "auth".
        component: Part of the sub-service that reports, such as "retry".
        metadata: Further facts. Never secrets: they are written out.
        source_function: Function that reports.
        source_file: File that reports.
        source_line: Line that reports.

    The record goes to the logger "tessaline"; every argument is an attribute of the record, under its own
    name with the prefix "tessaline_". May be called from any thread.
    """
    logger = _library_logger()
    number = {"debug": 10, "info": 20, "warning": 30, "error": 40, "critical": 50}.get(level.lower(), 40)
    if not logger.isEnabledFor(number):
        return
    facts = dict(metadata or {})
    logger.log(
        number,
        "%s: %s",
        surface,
        " ".join(f"{name}={value}" for name, value in facts.items()),
        extra={
            "tessaline_surface": surface,
            "tessaline_level": level,
            "tessaline_sub_service": sub_service,
            "tessaline_component": component,
            "tessaline_metadata": facts,
            "tessaline_source_function": source_function,
            "tessaline_source_file": source_file,
            "tessaline_source_line": source_line,
        },
    )
