#pragma once

/// Marks what leaves the shared library; everything else is hidden.
#define VNJS_API __attribute__((visibility("default")))
