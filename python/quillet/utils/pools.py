"""Pools whose threads are all there from the start."""

import threading
from concurrent.futures import ThreadPoolExecutor


def started_pool(size: int, name: str) -> ThreadPoolExecutor:
    """A pool that starts no thread later, when a task would already be waiting for it.

    A RuntimeError says that the system has no thread left.
    """
    pool = ThreadPoolExecutor(size, thread_name_prefix=name)
    all_started = threading.Barrier(size)
    try:
        for started in [pool.submit(all_started.wait) for _ in range(size)]:
            started.result()
    except RuntimeError:  # those that are there are let go
        all_started.abort()
        pool.shutdown(cancel_futures=True)
        raise
    return pool
