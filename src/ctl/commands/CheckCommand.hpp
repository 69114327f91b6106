// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/commands/Command.hpp"

extern const Command checkCommand;
