"""Programs that import, run and end the component in processes of their own."""
