#pragma once

/// Marks what libzkconnector.so shows to the module and to the tests.
#define CONNECTOR_API __attribute__((visibility("default")))
