#!/usr/bin/python3
"""Benchmark peer: COUNT uploads of BYTES-byte files through the official Dropbox Python SDK, the
way its own batch pattern goes: THREADS threads open one closed upload session per file, then one
files/upload_session/finish_batch commits them all and finish_batch/check is polled until the job
is done. Each thread has its own client (and keep-alive connection). Prints the elapsed seconds.
DROPBOX_API_HOST, DROPBOX_API_CONTENT_HOST and REQUESTS_CA_BUNDLE come from the caller.
Usage: sdk_upload_peer.py COUNT THREADS BYTES FOLDER"""
import sys
import threading
import time

import dropbox
from dropbox.files import CommitInfo, UploadSessionCursor, UploadSessionFinishArg, WriteMode


def main():
    count, threads, size = (int(a) for a in sys.argv[1:4])
    folder = sys.argv[4]
    clients = [dropbox.Dropbox("T", max_retries_on_error=0) for _ in range(threads)]
    for client in clients:  # connect and warm up outside the timed part
        client.files_upload_session_start(b"warm", close=True)
    payloads = [(b"%08d" % i) * (size // 8) for i in range(count)]
    entries = [None] * count
    failures = []

    def worker(index):
        client = clients[index]
        for i in range(index, count, threads):
            try:
                session = client.files_upload_session_start(payloads[i], close=True)
            except Exception as error:  # pylint: disable=broad-except
                failures.append((i, error))
                continue
            entries[i] = UploadSessionFinishArg(
                cursor=UploadSessionCursor(session_id=session.session_id,
                                           offset=len(payloads[i])),
                commit=CommitInfo(path="%s/f%04d.bin" % (folder, i), mode=WriteMode.overwrite,
                                  autorename=False, mute=True))

    start = time.perf_counter()
    pool = [threading.Thread(target=worker, args=(i,)) for i in range(threads)]
    for thread in pool:
        thread.start()
    for thread in pool:
        thread.join()
    if failures:
        print("failed sessions: %d" % len(failures), file=sys.stderr)
        return 1
    committed = 0
    for at in range(0, count, 1000):
        launch = clients[0].files_upload_session_finish_batch(entries[at:at + 1000])
        if launch.is_complete():
            result = launch.get_complete()
        else:
            job = launch.get_async_job_id()
            while True:
                status = clients[0].files_upload_session_finish_batch_check(job)
                if status.is_complete():
                    result = status.get_complete()
                    break
                time.sleep(0.01)
        committed += sum(1 for entry in result.entries if entry.is_success())
    elapsed = time.perf_counter() - start
    if committed != count:
        print("committed %d of %d" % (committed, count), file=sys.stderr)
        return 1
    print("%.6f" % elapsed)
    return 0


if __name__ == "__main__":
    sys.exit(main())
