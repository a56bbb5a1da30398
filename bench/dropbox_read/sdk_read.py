#!/usr/bin/python3
"""Benchmark peer: what a script using the official Dropbox Python SDK does to pull a folder of
records: list it (list_folder, list_folder/continue), download every file with T threads (each
with its own client and keep-alive connection), and decode each stored payload (gunzip, binary
plist, walk of the keyed archive to the "data" dictionary). Prints "<seconds> <records>".
DROPBOX_API_HOST, DROPBOX_API_CONTENT_HOST and REQUESTS_CA_BUNDLE come from the caller.
Usage: sdk_read.py FOLDER THREADS"""
import gzip
import plistlib
import sys
import threading
import time

import dropbox

FOUNDATION_DICTS = ("NSDictionary", "NSMutableDictionary")
FOUNDATION_ARRAYS = ("NSArray", "NSMutableArray")


def decode(raw):
    archive = plistlib.loads(gzip.decompress(raw))
    objects = archive["$objects"]

    def ref(uid):
        o = objects[uid.data]
        if not isinstance(o, dict):
            return o
        name = objects[o["$class"].data]["$classname"]
        if name in FOUNDATION_DICTS:
            return {ref(k): ref(v) for k, v in zip(o["NS.keys"], o["NS.objects"])}
        if name in FOUNDATION_ARRAYS:
            return [ref(x) for x in o["NS.objects"]]
        if name == "NSDate":
            return o["NS.time"]
        if name == "NSNull":
            return None
        return {k: (ref(v) if isinstance(v, plistlib.UID) else v) for k, v in o.items()}

    return ref(archive["$top"]["data"])


def main():
    folder, threads = sys.argv[1], int(sys.argv[2])
    clients = [dropbox.Dropbox("T", max_retries_on_error=0) for _ in range(threads)]
    for client in clients:  # connect outside the timed part
        client.users_get_current_account()
    start = time.perf_counter()
    listing = clients[0].files_list_folder(folder, limit=2000)
    paths = [e.path_lower for e in listing.entries if isinstance(e, dropbox.files.FileMetadata)]
    while listing.has_more:
        listing = clients[0].files_list_folder_continue(listing.cursor)
        paths += [e.path_lower for e in listing.entries
                  if isinstance(e, dropbox.files.FileMetadata)]
    decoded = [None] * len(paths)

    def worker(index):
        client = clients[index]
        for i in range(index, len(paths), threads):
            _, response = client.files_download(paths[i])
            decoded[i] = decode(response.content)

    pool = [threading.Thread(target=worker, args=(i,)) for i in range(threads)]
    for thread in pool:
        thread.start()
    for thread in pool:
        thread.join()
    elapsed = time.perf_counter() - start
    good = sum(1 for d in decoded if isinstance(d, dict) and "title" in d)
    print("%.6f %d" % (elapsed, good))
    return 0


if __name__ == "__main__":
    sys.exit(main())
