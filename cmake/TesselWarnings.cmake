# SPDX-License-Identifier: GPL-3.0-or-later
# Warnings apply to our own targets only, so third-party headers never break the build.
function(tessel_warnings target)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
        -Wimplicit-fallthrough -Werror)
endfunction()
