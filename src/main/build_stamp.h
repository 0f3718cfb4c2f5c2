#pragma once

// One line "branch - x.y.z - hash - YYYY-MM-DD HH:MM:SS +ZZZZ - TYPE", generated
// at build time into the build tree.
const char* ipcd_build_stamp();
