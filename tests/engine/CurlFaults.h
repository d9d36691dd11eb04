#pragma once

#include <curl/curl.h>
#include <openssl/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// A decorator around libcurl, put there by the linker (ld(1), --wrap): it records the options that
/// are set, how long is waited and what is given back, forwards every call, and fails the chosen
/// ones.
namespace kova::engine {

using MessageCallback = void (*)(int, int, int, const void*, std::size_t, SSL*, void*);

struct CurlFaults {
  bool easyInit = false;
  bool multiInit = false;
  CURLMcode wait = CURLM_OK;
  CURLMcode perform = CURLM_OK;
  CURLMcode addHandle = CURLM_OK;
  CURLMcode removeHandle = CURLM_OK;
  std::optional<CURLcode> result;    ///< what every transfer that ends is said to have ended with
  std::optional<CURLoption> option;  ///< setting it fails with CURLE_OUT_OF_MEMORY
  std::optional<unsigned> failingOption;  ///< and so does setting the option of this number
  unsigned optionsAsked = 0;
  std::optional<CURLINFO> info;     ///< asking for it fails with CURLE_UNKNOWN_OPTION
  bool privateIsNull = false;       ///< CURLINFO_PRIVATE gives null
  std::optional<std::string> part;  ///< adding the form part of this name fails

  bool messagesUnwatched = false;  ///< OpenSSL forgets the callback that watches its messages
  MessageCallback messageCallback = nullptr;

  /// "NAME=VALUE" of each option set, in order; VALUE is "..." for functions and objects.
  std::vector<std::string> options;
  /// How often each information was asked for.
  unsigned asked(CURLINFO information) const;
  std::vector<CURLINFO> informations;
  /// "RCVBUF=BYTES" and "RCVBUFFORCE=BYTES" as the engine sets them on sockets, in order.
  std::vector<std::string> socketOptions;
  /// The time-out of each wait for sockets.
  std::vector<int> waits;
  /// "multi", "easy", "form" and "timer" for each that is given back, in order.
  std::vector<std::string> released;
};

/// CURLINFO_CONTENT_LENGTH_DOWNLOAD, which is deprecated, for a test to name.
extern const CURLINFO kLengthInformation;

/// The decorator's state in this process.
CurlFaults& curlFaults();

}  // namespace kova::engine
