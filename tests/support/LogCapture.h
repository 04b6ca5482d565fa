#pragma once

#include <utils/testing/LogCaptureGmock.h>

namespace Halden::Tavro::TestSupport
{

using Utils::Testing::isLine;
using Utils::Testing::LogLine;
using LogCapture = Utils::Testing::StrictLogCapture;

}
