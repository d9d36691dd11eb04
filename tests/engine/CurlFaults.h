#pragma once

#include <curl/curl.h>
#include <openssl/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// A decorator around libcurl, inserted by the linker (ld(1), --wrap): records options, waits and
/// releases, forwards every call, and fails the chosen ones.
namespace kova::engine {

using MessageCallback = void (*)(int, int, int, const void*, std::size_t, SSL*, void*);

struct CurlFaults {
  bool easyInit = false;
  bool multiInit = false;
  CURLMcode wait = CURLM_OK;
  CURLMcode perform = CURLM_OK;
  CURLMcode addHandle = CURLM_OK;
  CURLMcode removeHandle = CURLM_OK;
  std::optional<CURLcode> result;         ///< replaces the result of every transfer that ends
  std::optional<CURLoption> option;       ///< setting it fails with CURLE_OUT_OF_MEMORY
  std::optional<unsigned> failingOption;  ///< the option set at this index fails likewise
  unsigned optionsAsked = 0;
  std::optional<CURLINFO> info;     ///< asking for it fails with CURLE_UNKNOWN_OPTION
  bool privateIsNull = false;       ///< CURLINFO_PRIVATE gives null
  std::optional<std::string> part;  ///< adding the form part of this name fails

  bool messagesUnwatched = false;  ///< OpenSSL forgets the callback that watches its messages
  MessageCallback messageCallback = nullptr;

  /// "NAME=VALUE" of each option set, in order; VALUE is "..." for functions and objects.
  std::vector<std::string> options;
  /// How often `information` was requested.
  unsigned asked(CURLINFO information) const;
  std::vector<CURLINFO> informations;
  /// "RCVBUF=BYTES" and "RCVBUFFORCE=BYTES" as the engine sets them on sockets, in order.
  std::vector<std::string> socketOptions;
  /// The time-out of each wait for sockets.
  std::vector<int> waits;
  /// "multi", "easy", "form" and "timer" for each handle released, in order.
  std::vector<std::string> released;
};

/// CURLINFO_CONTENT_LENGTH_DOWNLOAD, which is deprecated, under a name without warnings.
extern const CURLINFO kLengthInformation;

/// The decorator's state in this process.
CurlFaults& curlFaults();

}  // namespace kova::engine
