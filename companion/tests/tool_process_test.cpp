// Which programs run.
#include "companion/tool_process.h"

#include "support/test.h"

IMPORTED(OpenProcessToken)

using namespace repair;

TEST(ToolProcess, AToolWhoseRightsCannotBeAskedForRuns)
{
    SUBSTITUTE(OpenProcessToken)
    open([](auto...) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    EXPECT_TRUE(IsToolRunning(OurPath()));
}
