"""Public tables of known results, compared with the component's."""
