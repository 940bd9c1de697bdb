// Allocations that fail, in a test program that has failing_new.cpp among its sources.
#pragma once

// Null, or says of the allocation at hand whether it fails; it allocates nothing.
inline bool (*allocation_fails)() = nullptr;
