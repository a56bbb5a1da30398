#include "emulator/http_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <fstream>

#include "platform/env.h"

namespace wdc::emu::testing {
namespace {

size_t appendBody(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

size_t appendHeader(char* data, size_t size, size_t count, void* target) {
  const std::string line(data, size * count);
  const size_t colon = line.find(':');
  if (colon != std::string::npos) {
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(' '));
    while (!value.empty() && (value.back() == '\r' || value.back() == '\n')) value.pop_back();
    (*static_cast<std::map<std::string, std::string>*>(target))[name] = value;
  }
  return size * count;
}

}  // namespace

std::string HttpReply::contentType() const { return header("content-type"); }

std::string HttpReply::header(const std::string& lowerName) const {
  const auto it = headers.find(lowerName);
  return it == headers.end() ? std::string() : it->second;
}

HttpClient::HttpClient(std::string baseUrl, std::string caPem)
    : baseUrl_(std::move(baseUrl)), curl_(curl_easy_init()) {
  if (!caPem.empty()) {
    caFile_ = (Env::real().temporaryDirectory() / ("emulator-ca-" + Env::real().newUUID() + ".pem"))
                  .string();
    std::ofstream(caFile_) << caPem;
  }
}

HttpClient::~HttpClient() {
  curl_easy_cleanup(curl_);
  if (!caFile_.empty()) std::remove(caFile_.c_str());
}

HttpReply HttpClient::post(const std::string& route, const std::vector<std::string>& headers,
                           const std::string* body) {
  HttpReply reply;
  curl_easy_reset(curl_);
  const std::string url = baseUrl_ + "/" + (route == "oauth2/token" ? route : "2/" + route);
  curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl_, CURLOPT_TIMEOUT, 30L);
  if (!caFile_.empty()) curl_easy_setopt(curl_, CURLOPT_CAINFO, caFile_.c_str());
  curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &reply.body);
  curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, appendHeader);
  curl_easy_setopt(curl_, CURLOPT_HEADERDATA, &reply.headers);
  curl_slist* list = nullptr;
  for (const std::string& header : headers) list = curl_slist_append(list, header.c_str());
  list = curl_slist_append(list, "Expect:");
  if (body == nullptr) {
    // POST with no body and no Content-Length at all.
    curl_easy_setopt(curl_, CURLOPT_CUSTOMREQUEST, "POST");
  } else {
    curl_easy_setopt(curl_, CURLOPT_POST, 1L);
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body->data());
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
  }
  curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, list);
  reply.curlCode = curl_easy_perform(curl_);
  curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &reply.status);
  curl_slist_free_all(list);
  return reply;
}

HttpReply HttpClient::rpc(const std::string& route, const std::string& json,
                          const std::string& token) {
  return post(route, {"Authorization: Bearer " + token, "Content-Type: application/json"}, &json);
}

HttpReply HttpClient::upload(const std::string& route, const std::string& arg,
                             const std::string& data, const std::string& token) {
  return post(route,
              {"Authorization: Bearer " + token, "Content-Type: application/octet-stream",
               "Dropbox-API-Arg: " + arg},
              &data);
}

HttpReply HttpClient::download(const std::string& route, const std::string& arg,
                               const std::string& token) {
  static const std::string empty;
  return post(route, {"Authorization: Bearer " + token, "Dropbox-API-Arg: " + arg}, &empty);
}

}  // namespace wdc::emu::testing
