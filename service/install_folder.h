// Where the package's programs may sit without a folder access of their own:
// inside the system's Program Files folder, whose access only administrators
// can change. Anywhere else (a folder under C:\, where users may create and
// change files) the service's setup step gives the install folder a
// protected DACL, so no user can replace the programs the service restarts
// or plant a library beside them.
#pragma once

#include <string_view>

namespace lindqvar::service {

// Whether `path` is `folder` itself or lies below it. Case is ignored, "/"
// and "\" are the same, trailing separators do not count, and only whole
// names match ("C:\Program Files2" is not inside "C:\Program Files"). An
// empty folder contains nothing.
bool IsWithinFolder(std::u16string_view path, std::u16string_view folder);

}  // namespace lindqvar::service
