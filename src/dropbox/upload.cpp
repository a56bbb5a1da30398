// The blocking single uploads of the Dropbox backend: one record, or one arbitrary object, sent
// with files/upload from its gzipped scratch file (overwrite, muted, never renamed).
#include <fmt/format.h>

#include <functional>

#include "dropbox/blocking_call.h"
#include "dropbox/upload_scratch.h"
#include "platform/logger.h"

namespace wdc {
namespace {

dbx::DBFILESUploadArg uploadArgument(const std::string& remotePath) {
  dbx::DBFILESUploadArg arg;
  arg.commit.path = remotePath;
  arg.commit.mode = dbx::DBFILESWriteMode::overwrite();
  arg.commit.autorename = false;
  arg.commit.mute = true;
  arg.commit.strictConflict = false;
  return arg;
}

// A route error comes without a request error from our client, where the server answered 409:
// the failure the caller sees is that answer.
dbx::DBRequestError routeFailure(const dbx::DBFILESUploadError& routeError) {
  dbx::DBRequestError error;
  error.kind = dbx::DBRequestError::Kind::kHttp;
  error.statusCode = 409;
  error.errorContent = routeError.description();
  error.message = "files/upload failed";
  return error;
}

// Sends the prepared file and records the outcome on `connection`; `onStored` sees the stored
// file's metadata. A file we could not write completely is not sent: it fails as unreadable.
void sendScratchFile(WebDAVConnect& connection, const dropbox::ScratchUpload& scratch,
                     const std::string& remotePath,
                     const std::function<void(const dbx::DBFILESFileMetadata&)>& onStored) {
  auto client = dropbox::authorizedClientFor(connection);
  if (!client) return;
  if (!scratch.complete) {
    const dbx::DBRequestError unreadable = dropbox::incompleteScratchError(scratch);
    connection.setAsyncErrorIfRequired(&unreadable);
    return;
  }
  std::optional<dbx::DBRequestError> refused;
  dropbox::awaitAnswer(
      connection, client->filesRoutes().uploadUrl(uploadArgument(remotePath), scratch.uploadPath),
      [&](const dbx::DBFILESFileMetadata* stored, const dbx::DBFILESUploadError* routeError) {
        if (stored != nullptr && onStored) onStored(*stored);
        if (routeError != nullptr) refused = routeFailure(*routeError);
      });
  if (refused) connection.setAsyncErrorIfRequired(&*refused);
}

}  // namespace

std::shared_ptr<WebDAVFileMetaData> WebDAVConnect::uploadFileWithObjectToDropbox(
    const std::shared_ptr<WebDAVFileContents>& object, const std::optional<std::string>& toFolder,
    ErrorOut error) {
  static const WebDAVFileContents kNothing;
  dropbox::RecordUpload upload = dropbox::prepareRecordUpload(
      object ? *object : kNothing, toFolder, dropbox::ScratchUse::kSingleRecord);
  metaDataOfLastUploadedFile = upload.newMetaData;
  log::debug(fmt::format("[DROPBOX] Uploading File: {}", upload.remotePath));
  const std::shared_ptr<WebDAVFileMetaData>& newMetaData = upload.newMetaData;
  sendScratchFile(*this, upload.scratch, upload.remotePath,
                  [&newMetaData](const dbx::DBFILESFileMetadata& stored) {
                    newMetaData->FileRev = stored.rev;
                  });
  if (checkIfRequestFailed(error)) return nullptr;
  dropbox::removeScratchFile(upload.scratch.uploadPath);
  if (object) object->FileMetaData = newMetaData;
  return newMetaData;
}

bool WebDAVConnect::uploadArbitraryFileToDropbox(const std::string& name,
                                                 const std::optional<PlistValue>& withData,
                                                 const std::optional<std::string>& toFolder,
                                                 ErrorOut error) {
  if (!withData) return false;
  const std::string remotePath = dropbox::remotePathFor(toFolder, name);
  log::debug(fmt::format("[DROPBOX] Uploading arbitrary File: {} ({})", remotePath, name));
  const dropbox::ScratchUpload scratch =
      dropbox::prepareScratchFile(name, *withData, dropbox::ScratchUse::kArbitraryObject);
  sendScratchFile(*this, scratch, remotePath, nullptr);
  if (checkIfRequestFailed(error)) return false;
  dropbox::removeScratchFile(scratch.uploadPath);
  return true;
}

}  // namespace wdc
