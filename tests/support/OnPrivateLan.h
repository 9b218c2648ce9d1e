#pragma once
#include "tests/support/PrivateLan.h"
