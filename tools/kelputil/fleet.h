// Fleet runs: one command on every selected host of an inventory.
#pragma once

#include "invocation.h"

int run_fleet(const invocation& inv);
