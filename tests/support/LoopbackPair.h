#pragma once
#include "tavronet/socket/TavroSocket.h"
#include "tests/support/PlainSocket.h"
