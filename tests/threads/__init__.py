"""Where a thread, its time or its stack is not what it seems: greenlets, faked clocks, loops, forks."""
