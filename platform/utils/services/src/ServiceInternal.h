#pragma once

#include <cstdint>
#include <string>

namespace kova::utils {

/// Maximum time that a request to start or stop a service may block the caller.
constexpr std::uint64_t kServiceBudgetMs = 8000;
constexpr int kServicePollMs = 50;
/// How long a service must run to count as started.
constexpr int kServiceSettleMs = 500;

/// Whether a name is not empty, does not begin with "." and contains neither "/" nor NUL.
bool isServiceName(const std::string& name);

bool enableRunitService(const std::string& name);
bool disableRunitService(const std::string& name);

}  // namespace kova::utils
