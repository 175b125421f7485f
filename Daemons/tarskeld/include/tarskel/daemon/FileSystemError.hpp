#pragma once

// The daemon's file failures are the base layer's FileSystemError.
#include "tarskel/protocol/base/FileSystemError.hpp"
