#pragma once

#include <utils/testing/LogCaptureGmock.h>

namespace Halden::Tavro::TestSupport
{

/// The capture of the library's users, in its strict form: a Warning or worse that was not announced fails the test.
using LogCapture = Utils::Testing::StrictLogCapture;

using Utils::Testing::isLine;
using Utils::Testing::LogLine;

}
