// A small blocking libcurl client for the emulator tests: one easy handle reused, so requests
// share a keep-alive connection the way real clients do.
#pragma once

#include <map>
#include <string>
#include <vector>

typedef void CURL;

namespace wdc::emu::testing {

struct HttpReply {
  int curlCode = 0;  // CURLcode; 0 when an answer arrived whole
  long status = 0;
  std::string body;
  std::map<std::string, std::string> headers;  // names lower-cased
  std::string contentType() const;
  std::string header(const std::string& lowerName) const;
};

class HttpClient {
 public:
  // `caPem`: certificate to trust (empty for plain HTTP).
  HttpClient(std::string baseUrl, std::string caPem);
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // POST /2/<route>. `headers` are "Name: value" lines; `body` nullptr sends none at all.
  HttpReply post(const std::string& route, const std::vector<std::string>& headers,
                 const std::string* body);
  // RPC call with a JSON body and the bearer token.
  HttpReply rpc(const std::string& route, const std::string& json, const std::string& token = "T");
  // Upload call: Dropbox-API-Arg + octet-stream body.
  HttpReply upload(const std::string& route, const std::string& arg, const std::string& data,
                   const std::string& token = "T");
  // Download call: Dropbox-API-Arg, no body.
  HttpReply download(const std::string& route, const std::string& arg,
                     const std::string& token = "T");

 private:
  std::string baseUrl_;
  std::string caFile_;
  CURL* curl_;
};

}  // namespace wdc::emu::testing
