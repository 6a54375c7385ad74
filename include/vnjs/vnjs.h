#pragma once

/// The library interface that shows the engine, and takes the engine's headers. <vnjs/runner.h> is the one without.

#include <vnjs/array_buffer_allocator.h>
#include <vnjs/automation.h>
#include <vnjs/callback.h>
#include <vnjs/environment.h>
#include <vnjs/error.h>
#include <vnjs/host.h>
#include <vnjs/lock.h>
#include <vnjs/module.h>
#include <vnjs/process.h>
#include <vnjs/refcount.h>
#include <vnjs/result.h>
#include <vnjs/thread.h>
#include <vnjs/value.h>
