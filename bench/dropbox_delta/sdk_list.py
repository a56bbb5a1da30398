#!/usr/bin/python3
"""Benchmark peer: the whole app folder listed through the official Dropbox Python SDK,
files_list_folder (recursive, 1,000 a page) then files_list_folder_continue while it has more.
Prints the elapsed seconds. DROPBOX_API_HOST, DROPBOX_API_CONTENT_HOST and REQUESTS_CA_BUNDLE
come from the caller. Usage: sdk_list.py MINIMUM_ENTRIES"""
import sys
import time

import dropbox


def main():
    minimum = int(sys.argv[1])
    client = dropbox.Dropbox("T", max_retries_on_error=0)
    client.users_get_current_account()  # connect outside the timed part
    start = time.perf_counter()
    result = client.files_list_folder("", recursive=True, limit=1000)
    count = len(result.entries)
    while result.has_more:
        result = client.files_list_folder_continue(result.cursor)
        count += len(result.entries)
    elapsed = time.perf_counter() - start
    if count < minimum:
        print("listed %d entries, expected at least %d" % (count, minimum), file=sys.stderr)
        return 1
    print("%.6f" % elapsed)
    return 0


if __name__ == "__main__":
    sys.exit(main())
