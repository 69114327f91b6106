// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

/// `text` with each control character shown as "\xHH", so that names from files of other users cannot steer
/// the terminal. Bytes above 0x7f stay: in UTF-8 they begin no control sequence but C1, whose second bytes
/// are shown so too.
std::string Printable(std::string_view text);
