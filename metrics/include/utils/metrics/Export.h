#pragma once

/// Marks what the library offers; everything else is hidden.
#define HALDEN_CPPUTILS_METRICS_EXPORT __attribute__((visibility("default")))
