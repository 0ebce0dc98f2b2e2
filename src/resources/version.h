// The version of the tool, defined only here. Plain defines, because the resource compiler reads them too.
#pragma once

#define TAVIK_VERSION_NUMBERS 1, 0, 0, 1
#define TAVIK_VERSION_TEXT "1.0.0.1"
