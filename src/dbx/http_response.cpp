#include "dbx/http_response.h"

#include <charconv>
#include <cmath>

namespace wdc::dbx {
namespace {

// Longest error body kept as error text: enough for any real message, short enough for a log.
constexpr std::size_t kMaxErrorContent = 4096;

std::string clip(std::string_view text) {
  if (text.size() <= kMaxErrorContent) return std::string(text);
  return std::string(text.substr(0, kMaxErrorContent)) + "...";
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                           text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

DBRequestError malformed(const HttpResponse& response, std::string what) {
  DBRequestError error = DBRequestError::transport(kURLErrorCannotParseResponse, std::move(what));
  error.statusCode = static_cast<int>(response.status);
  if (const auto* id = response.header("x-dropbox-request-id")) error.requestId = clip(*id);
  return error;
}

// Reads the JSON error envelope when there is one: error_summary as the content, the
// user_message text. Returns the parsed body.
std::optional<json::Json> readEnvelope(const HttpResponse& response, DBRequestError& error) {
  auto body = json::parse(response.body);
  if (body && body->is_object()) {
    auto summary = body->find("error_summary");
    if (summary != body->end() && summary->is_string()) {
      error.errorContent = clip(summary->get_ref<const std::string&>());
    } else if (auto inner = body->find("error"); inner != body->end()) {
      error.errorContent = clip(inner->dump(-1, ' ', true, json::Json::error_handler_t::replace));
    }
    auto userMessage = body->find("user_message");
    if (userMessage != body->end() && userMessage->is_object()) {
      auto text = userMessage->find("text");
      if (text != userMessage->end() && text->is_string()) {
        error.userMessage = clip(text->get_ref<const std::string&>());
      }
    }
  }
  if (!error.errorContent && !trim(response.body).empty()) {
    error.errorContent = clip(trim(response.body));
  }
  return body;
}

std::optional<double> numberAt(const json::Json& object, std::string_view key) {
  if (!object.is_object()) return std::nullopt;
  auto it = object.find(key);
  if (it == object.end() || !it->is_number()) return std::nullopt;
  double value = it->get<double>();
  if (!std::isfinite(value) || value < 0) return std::nullopt;
  return value;
}

std::optional<std::string> tagAt(const json::Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (!value.is_object()) return std::nullopt;
  auto it = value.find(".tag");
  if (it == value.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

}  // namespace

const std::string* HttpResponse::header(std::string_view lowerCaseName) const {
  auto it = headers.find(std::string(lowerCaseName));
  return it == headers.end() ? nullptr : &it->second;
}

std::optional<double> parseRetryAfter(std::string_view text) {
  text = trim(text);
  if (text.empty() || text.size() > 32) return std::nullopt;
  for (char c : text) {
    if ((c < '0' || c > '9') && c != '.') return std::nullopt;
  }
  double value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

DBRequestError requestErrorForStatus(const HttpResponse& response) {
  DBRequestError error;
  error.statusCode = static_cast<int>(response.status);
  if (const auto* id = response.header("x-dropbox-request-id")) error.requestId = clip(*id);
  auto body = readEnvelope(response, error);
  const json::Json* inner = nullptr;
  if (body && body->is_object()) {
    auto it = body->find("error");
    if (it != body->end()) inner = &*it;
  }
  const long status = response.status;
  if (status == 400) {
    error.kind = DBRequestError::Kind::kBadInput;
    // The token endpoint answers a dead refresh token with 400 invalid_grant: an auth failure.
    if (inner != nullptr && inner->is_string() && inner->get<std::string>() == "invalid_grant") {
      error.kind = DBRequestError::Kind::kAuth;
      error.authErrorTag = "invalid_grant";
    }
  } else if (status == 401) {
    error.kind = DBRequestError::Kind::kAuth;
    if (inner != nullptr) error.authErrorTag = tagAt(*inner);
  } else if (status == 403) {
    error.kind = DBRequestError::Kind::kAccess;
  } else if (status == 422) {
    error.kind = DBRequestError::Kind::kPathRoot;
  } else if (status == 429) {
    error.kind = DBRequestError::Kind::kRateLimit;
    error.rateLimitReason = "too_many_requests";
    if (inner != nullptr && inner->is_object()) {
      if (auto reason = inner->find("reason"); reason != inner->end()) {
        if (auto tag = tagAt(*reason)) error.rateLimitReason = *tag;
      }
      error.backoff = numberAt(*inner, "retry_after");
    }
    if (!error.backoff) {
      if (const auto* header = response.header("retry-after")) {
        error.backoff = parseRetryAfter(*header);
      }
    }
  } else if (status >= 500 && status <= 599) {
    error.kind = DBRequestError::Kind::kInternalServer;
  } else {
    error.kind = DBRequestError::Kind::kHttp;
    if (status >= 300 && status <= 399) {
      const auto* location = response.header("location");
      error.message = "redirect refused" + (location ? " (to " + clip(*location) + ")" : "");
    }
  }
  return error;
}

ClassifiedResponse classifyResponse(const HttpResponse& response, RouteStyle style) {
  ClassifiedResponse out;
  if (response.transportError) {
    out.requestError = response.transportError;
    return out;
  }
  const long status = response.status;
  if (status >= 200 && status <= 299) {
    std::string_view text;
    if (style == RouteStyle::kDownload) {
      const auto* header = response.header("dropbox-api-result");
      if (header == nullptr) {
        out.requestError = malformed(response, "answer without Dropbox-API-Result");
        return out;
      }
      text = *header;
    } else {
      text = response.body;
    }
    auto value = json::parse(text);
    if (!value) {
      out.requestError = malformed(response, "result is not JSON");
      return out;
    }
    out.kind = ClassifiedResponse::Kind::kResult;
    out.value = std::move(*value);
    return out;
  }
  if (status == 409) {
    auto body = json::parse(response.body);
    if (body && body->is_object() && body->contains("error")) {
      out.kind = ClassifiedResponse::Kind::kRouteError;
      out.value = (*body)["error"];
      auto summary = body->find("error_summary");
      if (summary != body->end() && summary->is_string()) {
        out.errorSummary = clip(summary->get_ref<const std::string&>());
      }
      return out;
    }
  }
  out.requestError = requestErrorForStatus(response);
  return out;
}

}  // namespace wdc::dbx
