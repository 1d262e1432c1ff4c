#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/regex.hpp>

#include "connector/core/ConnectorImpl2.h"
