#include "webdavconnect/error.h"

#include <fmt/format.h>

namespace wdc {
namespace {

// Short text of a user-information value for description(): enough to read a log line.
std::string describeValue(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::kNull: return "<null>";
    case PlistValue::Kind::kString: return value.asString();
    case PlistValue::Kind::kInteger: return std::to_string(value.asInt64());
    case PlistValue::Kind::kUnsignedInteger: return std::to_string(value.asUInt64());
    case PlistValue::Kind::kReal: return fmt::format("{}", value.asDouble());
    case PlistValue::Kind::kBoolean: return value.asBool() ? "1" : "0";
    case PlistValue::Kind::kDate: return fmt::format("<date {}>", value.asDate().unixSeconds());
    case PlistValue::Kind::kData: return fmt::format("<{} bytes>", value.asData().size());
    case PlistValue::Kind::kArray: return fmt::format("<array of {}>", value.asArray().size());
    case PlistValue::Kind::kSet: return fmt::format("<set of {}>", value.asSet().members.size());
    case PlistValue::Kind::kDictionary: {
      std::string out = "{";
      const auto& dict = value.asDictionary();
      for (size_t i = 0; i < dict.size(); ++i) {
        if (i) out += ", ";
        out += dict.keys()[i] + "=" + describeValue(dict.values()[i]);
      }
      return out + "}";
    }
    case PlistValue::Kind::kUnknownObject: {
      const auto& chain = value.asUnknownObject().classChain;
      return "<" + (chain.empty() ? std::string("object") : chain.front()) + ">";
    }
  }
  return "?";
}

}  // namespace

Error::Error(std::string domain, int64_t code, PlistDictionary userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

Error Error::withDescription(std::string domain, int64_t code, std::string localizedDescription) {
  PlistDictionary info;
  info.set(std::string(kLocalizedDescriptionKey), std::move(localizedDescription));
  return Error(std::move(domain), code, std::move(info));
}

Error Error::corruption(std::string_view what, std::string_view where) {
  std::string text(what);
  if (!where.empty()) text += fmt::format(" ({})", where);
  return withDescription(std::string(kWebDAVConnectErrorDomain), 400, std::move(text));
}

std::string Error::localizedDescription() const {
  if (const PlistValue* value = userInfo_.find(kLocalizedDescriptionKey)) {
    if (const std::string* text = value->stringIf()) return *text;
  }
  return fmt::format("The operation couldn\u2019t be completed. ({} error {}.)", domain_, code_);
}

std::string Error::description() const {
  std::string out =
      fmt::format("Error Domain={} Code={} \"{}\"", domain_, code_, localizedDescription());
  if (!userInfo_.empty()) out += " UserInfo=" + describeValue(PlistValue(userInfo_));
  return out;
}

}  // namespace wdc
