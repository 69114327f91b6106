// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace Interfaces {

/// The application: one managed run of one command.
class ICpuwarden {
public:
    virtual ~ICpuwarden() = default;

    /// Launches `argv[1]` with the arguments that follow it, supervises it, and returns the exit status: the
    /// command's own (128 plus the number of a signal that ended it), 124 after a timeout, 1 for a failure of
    /// the launcher, a missing command included, which is logged. Returns in the forked child too, with 1,
    /// when the command could not be placed or executed. Lets out nothing but a failure to allocate.
    virtual int RunApplication(int argc, char** argv) = 0;
};

} // namespace Interfaces
