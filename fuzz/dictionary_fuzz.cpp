#include "fuzz/support.h"

vnjs::fuzz::Target vnjs::fuzz::MakeTarget() { return {"/", {}, {}}; }
