#pragma once

/// Marks what libvendraplatform.so shows to the host and to the module. Exceptions and interfaces that cross a library
/// boundary carry it too, so that their type information is one and the same everywhere.
#define VENDRA_PLATFORM_API __attribute__((visibility("default")))
