/// \file
/// What nearly every test needs: the framework, the usual headers of the library, what was logged, and a folder.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <numbers>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/RecordingLogObserver.h"
#include "support/RecordingProgressObserver.h"
#include "support/TemporaryFolder.h"
