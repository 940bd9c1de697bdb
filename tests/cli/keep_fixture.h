// KeepTest.
#pragma once

#include "tests/cli/read_fixture.h"
