#!/usr/bin/python3
"""Drives the official Dropbox Python SDK against `wdc emulator` over TLS: every route the
library uses, success and error paths, and injected faults. Run: sdk_conformance.py WDC_BINARY.

The SDK reads its host names at import time and only speaks https, so each emulator gets its own
child Python process with DROPBOX_API_HOST, DROPBOX_API_CONTENT_HOST and REQUESTS_CA_BUNDLE set
before `import dropbox`.
"""
import io
import os
import subprocess
import sys
import tempfile
import zipfile

ABC_HASH = "4f8b42c22dd3729b519ba6f68d2da7cc5b2d606d05daed5ad5128cc03e6c6358"
checks = 0


def check(condition, what):
    global checks
    checks += 1
    if not condition:
        raise AssertionError(what)


def expect_api_error(call, predicate, what):
    import dropbox
    try:
        call()
    except dropbox.exceptions.ApiError as e:
        check(predicate(e.error), "%s: unexpected error %r" % (what, e.error))
        return e
    raise AssertionError("%s: no ApiError" % what)


def expect_exception(call, kind, what):
    try:
        call()
    except kind as e:
        global checks
        checks += 1
        return e
    raise AssertionError("%s: no %s" % (what, kind))


def run_routes():
    import dropbox
    from dropbox import files
    dbx = dropbox.Dropbox("T", max_retries_on_error=0, max_retries_on_rate_limit=0)

    account = dbx.users_get_current_account()
    check(len(account.account_id) == 40, "account id length")
    check(account.name.display_name == "Emu Lator", "display name")

    # Folders and uploads.
    folder = dbx.files_create_folder_v2("/Notes").metadata
    check(folder.path_display == "/Notes" and folder.id.startswith("id:"), "create folder")
    expect_api_error(lambda: dbx.files_create_folder_v2("/Notes"),
                     lambda e: e.is_path() and e.get_path().is_conflict()
                     and e.get_path().get_conflict().is_folder(), "folder conflict")
    first = dbx.files_upload(b"abc", "/Notes/Report.txt", mode=files.WriteMode.overwrite,
                             mute=True)
    check(first.content_hash == ABC_HASH and first.size == 3, "upload hash and size")
    check(len(first.rev) >= 9 and all(c in "0123456789abcdef" for c in first.rev), "rev form")
    expect_api_error(lambda: dbx.files_upload(b"xyz", "/Notes/Report.txt"),
                     lambda e: e.is_path() and e.get_path().reason.is_conflict(),
                     "upload conflict in add mode")
    same = dbx.files_upload(b"abc", "/Notes/Report.txt")
    check(same.rev == first.rev, "identical content in add mode keeps the rev")
    second = dbx.files_upload(b"abcd", "/Notes/Report.txt",
                              mode=files.WriteMode.update(first.rev))
    check(second.rev != first.rev, "update mode writes a new rev")
    unicode_name = "/Notes/\u00dcn\u00ef \u2713.txt"
    dbx.files_upload("\u2713".encode(), unicode_name)
    meta, response = dbx.files_download(unicode_name)
    check(meta.path_display == unicode_name and response.content == "\u2713".encode(),
          "non-ASCII name through Dropbox-API-Arg and Dropbox-API-Result")

    # Downloads.
    meta, response = dbx.files_download("/notes/report.TXT")
    check(response.content == b"abcd" and meta.rev == second.rev, "download")
    _, old = dbx.files_download("rev:" + first.rev)
    check(old.content == b"abc", "download of an older revision")
    expect_api_error(lambda: dbx.files_download("/Notes/missing.txt"),
                     lambda e: e.is_path() and e.get_path().is_not_found(), "download missing")
    expect_api_error(lambda: dbx.files_download("/Notes"),
                     lambda e: e.is_path() and e.get_path().is_not_file(), "download folder")

    # Listing, paging and the change journal.
    dbx.files_upload(b"1", "/Notes/Sub/one.txt")
    dbx.files_upload(b"2", "/Other/two.txt")
    page = dbx.files_list_folder("", recursive=True, limit=2)
    entries = list(page.entries)
    check(page.has_more and len(entries) == 2, "first page honours the limit")
    while page.has_more:
        page = dbx.files_list_folder_continue(page.cursor)
        entries += page.entries
    paths = sorted(e.path_lower for e in entries)
    check(paths == ["/notes", "/notes/report.txt", "/notes/sub", "/notes/sub/one.txt",
                    "/notes/\u00fcn\u00ef \u2713.txt", "/other", "/other/two.txt"],
          "recursive listing: %r" % paths)
    check(isinstance(entries[0], files.FolderMetadata), "parents come first")
    dbx.files_upload(b"3", "/Other/three.txt")
    dbx.files_delete_v2("/Other/two.txt")
    changes = dbx.files_list_folder_continue(page.cursor)
    kinds = {e.path_lower: type(e).__name__ for e in changes.entries}
    check(kinds == {"/other/three.txt": "FileMetadata", "/other/two.txt": "DeletedMetadata"},
          "changes since the cursor: %r" % kinds)
    shallow = dbx.files_list_folder("/Notes")
    check(sorted(e.name for e in shallow.entries) == ["Report.txt", "Sub", "\u00dcn\u00ef \u2713.txt"],
          "non-recursive listing")
    with_deleted = dbx.files_list_folder("/Other", include_deleted=True)
    check(any(isinstance(e, files.DeletedMetadata) for e in with_deleted.entries),
          "include_deleted lists deletions")
    expect_api_error(lambda: dbx.files_list_folder_continue("AAEbogus"),
                     lambda e: e.is_reset(), "unknown cursor resets")
    expect_api_error(lambda: dbx.files_list_folder("/missing"),
                     lambda e: e.is_path() and e.get_path().is_not_found(), "list missing")
    expect_api_error(lambda: dbx.files_list_folder("/Notes/Report.txt"),
                     lambda e: e.is_path() and e.get_path().is_not_folder(), "list a file")
    expect_exception(lambda: dbx.files_list_folder("/"), dropbox.exceptions.BadInputError,
                     "root given as /")

    # Search, both versions.
    found = dbx.files_search("", "report")
    check([m.metadata.path_lower for m in found.matches] == ["/notes/report.txt"]
          and found.matches[0].match_type.is_filename() and not found.more, "search v1")
    check(dbx.files_search("", "nothing-like-this").matches == [], "empty search")
    expect_api_error(lambda: dbx.files_search("/missing", "x"),
                     lambda e: e.is_path() and e.get_path().is_not_found(), "search missing path")
    v2 = dbx.files_search_v2("txt", files.SearchOptions(path="/Notes", max_results=1))
    collected = [m.metadata.get_metadata().path_lower for m in v2.matches]
    while v2.has_more:
        v2 = dbx.files_search_continue_v2(v2.cursor)
        collected += [m.metadata.get_metadata().path_lower for m in v2.matches]
    check(sorted(collected) == ["/notes/report.txt", "/notes/sub/one.txt",
                                "/notes/\u00fcn\u00ef \u2713.txt"], "search v2 pages: %r" % collected)

    # Upload sessions and batch commits.
    cursor = files.UploadSessionCursor
    commit = files.CommitInfo
    sid = dbx.files_upload_session_start(b"hello ").session_id
    expect_api_error(lambda: dbx.files_upload_session_append_v2(b"x", cursor(sid, 2)),
                     lambda e: e.is_incorrect_offset() and e.get_incorrect_offset().correct_offset == 6,
                     "append at a wrong offset")
    dbx.files_upload_session_append_v2(b"world", cursor(sid, 6), close=True)
    other = dbx.files_upload_session_start(b"zz", close=True).session_id
    launch = dbx.files_upload_session_finish_batch([
        files.UploadSessionFinishArg(cursor(sid, 11), commit("/Batch/hello.txt")),
        files.UploadSessionFinishArg(cursor(other, 5), commit("/Batch/zz.txt"))])
    check(launch.is_async_job_id(), "finish_batch answers a job id")
    job = launch.get_async_job_id()
    # A second commit while the first job runs is write contention.
    late = dbx.files_upload_session_start(b"late", close=True).session_id
    limited = expect_exception(
        lambda: dbx.files_upload_session_finish_batch_v2(
            [files.UploadSessionFinishArg(cursor(late, 4), commit("/Batch/late.txt"))]),
        dropbox.exceptions.RateLimitError, "overlapping commits")
    check(limited.error.reason.is_too_many_write_operations() and limited.backoff == 1,
          "overlap is too_many_write_operations")
    status = dbx.files_upload_session_finish_batch_check(job)
    check(status.is_in_progress(), "first poll in progress")
    status = dbx.files_upload_session_finish_batch_check(job)
    check(status.is_complete(), "second poll complete")
    results = status.get_complete().entries
    check(results[0].is_success() and results[0].get_success().path_display == "/Batch/hello.txt"
          and results[0].get_success().size == 11, "batch entry success")
    check(results[1].is_failure() and results[1].get_failure().is_lookup_failed()
          and results[1].get_failure().get_lookup_failed().is_incorrect_offset(),
          "batch entry failure")
    v2result = dbx.files_upload_session_finish_batch_v2(
        [files.UploadSessionFinishArg(cursor(late, 4), commit("/Batch/late.txt"))])
    check(v2result.entries[0].is_success(), "finish_batch_v2")
    expect_api_error(lambda: dbx.files_upload_session_finish_batch_check("dbjid:nope"),
                     lambda e: e.is_invalid_async_job_id(), "unknown job")
    _, content = dbx.files_download("/Batch/hello.txt")
    check(content.content == b"hello world", "session content committed")

    # Folder as ZIP, rooted at the folder's name.
    meta, response = dbx.files_download_zip("/Notes")
    check(meta.metadata.path_display == "/Notes", "zip metadata")
    with zipfile.ZipFile(io.BytesIO(response.content)) as archive:
        names = sorted(archive.namelist())
        check(names == ["Notes/", "Notes/Report.txt", "Notes/Sub/", "Notes/Sub/one.txt",
                        "Notes/\u00dcn\u00ef \u2713.txt"], "zip layout: %r" % names)
        check(archive.read("Notes/Report.txt") == b"abcd", "zip content")
    expect_api_error(lambda: dbx.files_download_zip("/Notes/Report.txt"),
                     lambda e: e.is_path() and e.get_path().is_not_folder(), "zip of a file")
    for i in range(6):
        dbx.files_upload(b"x", "/Many/f%d.txt" % i)
    expect_api_error(lambda: dbx.files_download_zip("/Many"), lambda e: e.is_too_many_files(),
                     "zip entry limit")

    # Deletes.
    deleted = dbx.files_delete_v2("/Notes/Report.txt").metadata
    check(isinstance(deleted, files.FileMetadata) and deleted.rev == second.rev, "delete_v2")
    expect_api_error(lambda: dbx.files_delete_v2("/Notes/Report.txt"),
                     lambda e: e.is_path_lookup() and e.get_path_lookup().is_not_found(),
                     "delete missing")
    launch = dbx.files_delete_batch([files.DeleteArg("/Batch/hello.txt"),
                                     files.DeleteArg("/Batch/none.txt")])
    job = launch.get_async_job_id()
    check(dbx.files_delete_batch_check(job).is_in_progress(), "delete batch in progress")
    done = dbx.files_delete_batch_check(job)
    check(done.is_complete(), "delete batch complete")
    entries = done.get_complete().entries
    check(entries[0].is_success()
          and entries[0].get_success().metadata.path_display == "/Batch/hello.txt"
          and entries[1].is_failure()
          and entries[1].get_failure().get_path_lookup().is_not_found(), "delete batch entries")

    # Tokens: refresh, a refused refresh token, a wrong bearer token, and the OAuth 1 migration.
    refreshing = dropbox.Dropbox(oauth2_refresh_token="R", app_key="K", app_secret="S")
    check(refreshing.users_get_current_account().account_id == account.account_id,
          "refresh-token client")
    refused = dropbox.Dropbox(oauth2_refresh_token="wrong", app_key="K", app_secret="S")
    e = expect_exception(refused.users_get_current_account, dropbox.exceptions.AuthError,
                         "bad refresh token")
    check(e.error.is_invalid_access_token(), "bad refresh token tag")
    e = expect_exception(dropbox.Dropbox("wrong").users_get_current_account,
                         dropbox.exceptions.AuthError, "wrong bearer token")
    check(e.error.is_invalid_access_token(), "wrong token tag")
    app = dropbox.Dropbox(app_key="K", app_secret="S")
    migrated = app.auth_token_from_oauth1("tok", "sec").oauth2_token
    check(dropbox.Dropbox(migrated).users_get_current_account().account_id == account.account_id,
          "migrated token works")
    expect_api_error(lambda: app.auth_token_from_oauth1("tok", "bad"),
                     lambda e: e.is_invalid_oauth1_token_info(), "bad OAuth 1 pair")


def run_faults():
    import dropbox
    import requests
    from dropbox import files
    dbx = dropbox.Dropbox("T", max_retries_on_error=0, max_retries_on_rate_limit=0)

    e = expect_exception(dbx.users_get_current_account, dropbox.exceptions.RateLimitError, "429")
    check(e.backoff == 3 and e.error.reason.is_too_many_requests(), "429 back-off and reason")
    check(len(dbx.users_get_current_account().account_id) == 40, "scripted 429 used up")
    e = expect_exception(lambda: dbx.files_list_folder(""), dropbox.exceptions.RateLimitError,
                         "429w")
    check(e.backoff == 2 and e.error.reason.is_too_many_write_operations(), "429w")
    e = expect_exception(lambda: dbx.files_upload(b"a", "/a.txt"),
                         dropbox.exceptions.RateLimitError, "header-only 429")
    check(e.backoff == 7 and e.error is None, "plain-text 429 read from Retry-After")
    dbx.files_upload(b"a", "/a.txt")
    e = expect_exception(lambda: dbx.files_download("/a.txt"),
                         dropbox.exceptions.InternalServerError, "500")
    check(e.status_code == 500, "500 status")
    e = expect_exception(lambda: dbx.files_search_v2("a"), dropbox.exceptions.InternalServerError,
                         "503")
    check(e.status_code == 503, "503 status")
    cursor = dbx.files_list_folder("").cursor
    expect_api_error(lambda: dbx.files_list_folder_continue(cursor), lambda e: e.is_reset(),
                     "injected reset")
    expect_exception(lambda: dbx.files_delete_v2("/a.txt"), requests.exceptions.ConnectionError,
                     "dropped connection")
    # urllib3 does not enforce Content-Length here, so the SDK sees the cut JSON itself.
    expect_exception(lambda: dbx.files_create_folder_v2("/F"),
                     (requests.exceptions.RequestException, ValueError), "truncated body")
    # Tokens issued with a zero lifetime are expired at once: the SDK refreshes once on the
    # 401 expired_access_token, gets another expired token, and gives up with that error.
    short = dropbox.Dropbox(oauth2_refresh_token="R", app_key="K", app_secret="S")
    e = expect_exception(short.users_get_current_account, dropbox.exceptions.AuthError,
                         "expired token")
    check(e.error.is_expired_access_token(), "expired_access_token tag")


def start_emulator(wdc, directory, name, extra):
    cert = os.path.join(directory, name + ".pem")
    process = subprocess.Popen(
        [wdc, "emulator", "--tls", "--port", "0", "--cert-out", cert, "--token", "T",
         "--app-key", "K", "--app-secret", "S", "--refresh-token", "R", "--oauth1", "tok:sec",
         "--zip-max-entries", "5"] + extra,
        stdout=subprocess.PIPE, text=True)
    line = process.stdout.readline().strip()
    if not line.startswith("listening on https://127.0.0.1:"):
        process.kill()
        raise AssertionError("unexpected first line %r" % line)
    return process, line[len("listening on https://"):], cert


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "--peer":
        {"routes": run_routes, "faults": run_faults}[sys.argv[2]]()
        print("%s: %d checks passed" % (sys.argv[2], checks))
        return 0
    wdc = sys.argv[1]
    failures = 0
    refused = subprocess.run([wdc, "emulator", "--fault", "files/download:teapot"],
                             capture_output=True, text=True, timeout=30)
    if refused.returncode != 2 or "bad fault rule" not in refused.stderr:
        print("a bad --fault was not refused: %r" % (refused,))
        failures += 1
    with tempfile.TemporaryDirectory() as directory:
        plans = [("routes", []),
                 ("faults", ["--access-token-lifetime", "0",
                             "--fault", "users/get_current_account:429:3#1",
                             "--fault", "files/list_folder:429w:2#1",
                             "--fault", "files/upload:429:7h#1",
                             "--fault", "files/download:500#1",
                             "--fault", "files/search_v2:503#1",
                             "--fault", "files/list_folder/continue:reset#1",
                             "--fault", "files/delete_v2:drop#1",
                             "--fault", "files/create_folder_v2:truncate#1"])]
        for name, extra in plans:
            process, host, cert = start_emulator(wdc, directory, name, extra)
            env = dict(os.environ, DROPBOX_API_HOST=host, DROPBOX_API_CONTENT_HOST=host,
                       REQUESTS_CA_BUNDLE=cert)
            try:
                result = subprocess.run([sys.executable, __file__, "--peer", name], env=env,
                                        timeout=120)
                failures += result.returncode != 0
            finally:
                process.terminate()
                process.wait(timeout=10)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
