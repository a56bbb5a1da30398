// What every Dropbox upload does before it sends: name the record, archive its payload under
// "data", write the archive into the Env's temporary directory, gzip it there, and describe the
// file it becomes (new metadata, remote path). Uploads always go from a file we wrote completely
// ourselves: the scratch files are created afresh (O_CREAT|O_EXCL|O_NOFOLLOW after removing what
// was there), so a link planted under a predictable record name is never followed, and a file we
// could not finish writing is never handed to the client.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "dbx/request_error.h"
#include "webdavconnect/file_contents.h"
#include "webdavconnect/file_metadata.h"
#include "webdavconnect/plist_value.h"

namespace wdc::dropbox {

// The stored name of a record: "o_" OP "_k_" container "_p_" parent "_i_" UID "_d_" "." EXT, with
// the identifiers lower-cased, an absent op type (or extension) written "(null)" and no device.
[[nodiscard]] std::string uploadFileName(const WebDAVFileMetaData& metaData);

// Where a scratch file named `name` lives: the Env's temporary directory joined with the name,
// with "/", "%" and NUL percent-escaped so that a name can never leave the directory.
[[nodiscard]] std::filesystem::path scratchPathFor(const std::string& name);

// "file://" URL of a local path (bytes outside the unreserved set percent-escaped), and back.
[[nodiscard]] std::string fileUrlForPath(const std::filesystem::path& path);
[[nodiscard]] std::filesystem::path pathForFileUrl(const std::string& fileUrl);

// Writes `bytes` to `path` as a new file of ours: removes whatever is there (a link is removed,
// not followed), then creates the file exclusively, mode 0600. False with `reason` when the file
// could not be written completely (a partial file is removed again).
bool writeScratchFile(const std::filesystem::path& path, const Bytes& bytes, std::string* reason);

// One prepared scratch file.
struct ScratchUpload {
  std::string fileName;               // the stored name (record name, or the arbitrary name)
  std::filesystem::path scratchPath;  // temporary directory + name
  std::filesystem::path uploadPath;   // scratchPath + ".gz", or scratchPath after the fallback
  // True only when `uploadPath` holds a file we wrote completely; otherwise nothing may be sent.
  bool complete = false;
};

// Which upload a scratch file is for, which decides what it logs: records log the copy and a
// missing result file, the batch also logs a failed write, arbitrary objects log none of these.
enum class ScratchUse { kSingleRecord, kBatchRecord, kArbitraryObject };

// Writes the stored form of `object` for `fileName` (archive under "data", then file_compress,
// or gzipDeflate written over the scratch path when that fails).
ScratchUpload prepareScratchFile(const std::string& fileName, const PlistValue& object,
                                 ScratchUse use);

// A record's scratch file plus the metadata it will have once stored.
struct RecordUpload {
  ScratchUpload scratch;
  std::shared_ptr<WebDAVFileMetaData> newMetaData;
  std::string remotePath;
};

// Prepares one record of `contents` for the folder `toFolder`. The new metadata carries the
// folder, the stored name, the source's identifiers unchanged and the Env's "now"; its FileRev is
// filled in once the store answers.
RecordUpload prepareRecordUpload(const WebDAVFileContents& contents,
                                 const std::optional<std::string>& toFolder, ScratchUse use);

// The Dropbox path of `name` in the host folder `folder`.
[[nodiscard]] std::string remotePathFor(const std::optional<std::string>& folder,
                                        const std::string& name);

// The request error a file that cannot be sent stands for: what the client reports for a local
// file it cannot read.
[[nodiscard]] dbx::DBRequestError incompleteScratchError(const ScratchUpload& scratch);

// Deletes an uploaded scratch file; a failure is only logged.
void removeScratchFile(const std::filesystem::path& path);

}  // namespace wdc::dropbox
