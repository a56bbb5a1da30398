#include "webdavconnect/file_metadata.h"

#include <functional>

#include "util/unicode_case.h"

namespace wdc {

std::string WebDAVFileMetaData::createEncodedPathWithOpType(
    const std::optional<std::string>& opType, const std::optional<std::string>& andContainer,
    const std::optional<std::string>& andParent, const std::optional<std::string>& andUID,
    const std::optional<std::string>& andExtension) {
  std::string name = "o_";
  name += opType.value_or("u");
  name += "_k_";
  name += andContainer.value_or("");
  name += "_p_";
  name += andParent.value_or("");
  name += "_i_";
  name += andUID.value_or("");
  name += "_d_";
  if (andExtension) {
    name += ".";
    name += *andExtension;
  }
  return name;
}

size_t WebDAVFileMetaData::hash() const {
  return FilePath ? std::hash<std::string>{}(*FilePath) : 0;
}

bool WebDAVFileMetaData::isEqual(const WebDAVFileMetaData* other) const {
  if (other == nullptr) return false;
  if (other == this) return true;
  if (!FilePath || !other->FilePath) return false;
  return lowercaseUnicode(*FilePath) == lowercaseUnicode(*other->FilePath);
}

}  // namespace wdc
