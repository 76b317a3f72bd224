"""Makes every allocation and every call into a library fail in turn, and checks the state afterwards.

Each scenario (`scenarios.py`) runs in a process forked for it, with the n-th call of one kind
(`kinds.py`) failing. Afterwards the manager must be usable or closed, and nothing may be leaked.
"""
