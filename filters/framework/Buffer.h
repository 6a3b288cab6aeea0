#pragma once

// Buffer is part of the core library; this header keeps the path applications include working.
#include <nuvek/core/Buffer.h>
