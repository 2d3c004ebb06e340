// What the sources of tvxmm share.
#pragma once

// A one-line reason, then the usage on stderr; exit status 2.
int tvxmm_misuse(const char *why);
// tvxmm mmdb ...
int mmdb_main(int argc, char **argv);
