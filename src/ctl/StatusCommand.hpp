// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/Command.hpp"

extern const Command statusCommand;
