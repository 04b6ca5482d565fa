#pragma once

/// Marks what the logging library offers; everything else is hidden.
#define HALDEN_CPPLOGGER_EXPORT __attribute__((visibility("default")))
