/// \file
/// What nearly every test needs: the framework, the usual headers of the library, what was logged, and a
/// folder.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <numbers>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

#include "support/Indices.h"
#include "support/RecordingLogObserver.h"
#include "support/RecordingProgressObserver.h"
#include "support/Says.h"
#include "support/TemporaryFolder.h"
