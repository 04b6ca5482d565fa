#pragma once

/// Marks what the library offers to services; everything else is hidden.
#define HALDEN_CPPUTILS_EXPORT __attribute__((visibility("default")))
