"""Makes every allocation and every call into a library fail in turn, and looks at what is left.

Each life of a manager (`scenarios.py`) is lived in a process forked for it, with the n-th thing of one kind
(`kinds.py`) failing. Afterwards the manager must be usable or closed, and nothing of it left behind.
"""
