#pragma once

#include <string>
#include <vector>

#include "../Device.h"
#include "../TransferRecord.h"
#include "kova/variant/Variant.h"

namespace kova::ctl {

/// Metrics in the form that is valid both as OpenMetrics and as the older text format of
/// Prometheus, which node_exporter's textfile collector reads: counters, whose declarations differ
/// between the two, have no type.
/// @param statistics the payload of GetSystemStats
/// @param device     null if the camera does not describe itself
/// @param transfers  likewise
std::string metricsText(const variant::Variant& statistics, const Device* device,
                        const std::vector<TransferRecord>* transfers);

}  // namespace kova::ctl
