// Where a message comes from: the module's source path as its messages spell it, and the exported
// function whose step failed.
//
//     const zt::Site here{kModule, __func__};
#pragma once

namespace zt {

struct Site {
    const char* module;
    const char* function;
};

}  // namespace zt
