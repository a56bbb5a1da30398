#!/usr/bin/python3
"""Benchmark peer: N small downloads through the official Dropbox Python SDK with T threads,
each thread with its own client (and so its own keep-alive connection). Prints the elapsed
seconds. DROPBOX_API_HOST, DROPBOX_API_CONTENT_HOST and REQUESTS_CA_BUNDLE come from the caller.
Usage: sdk_peer.py DOWNLOADS THREADS FILES"""
import sys
import threading
import time

import dropbox


def main():
    downloads, threads, files = (int(a) for a in sys.argv[1:4])
    clients = [dropbox.Dropbox("T", max_retries_on_error=0) for _ in range(threads)]
    for client in clients:  # connect and warm up outside the timed part
        client.files_download("/bench/f0.txt")
    failures = []

    def worker(index):
        client = clients[index]
        for i in range(index, downloads, threads):
            _, response = client.files_download("/bench/f%d.txt" % (i % files))
            if len(response.content) != 100:
                failures.append(i)

    start = time.perf_counter()
    pool = [threading.Thread(target=worker, args=(i,)) for i in range(threads)]
    for thread in pool:
        thread.start()
    for thread in pool:
        thread.join()
    elapsed = time.perf_counter() - start
    if failures:
        print("failed downloads: %d" % len(failures), file=sys.stderr)
        return 1
    print("%.6f" % elapsed)
    return 0


if __name__ == "__main__":
    sys.exit(main())
