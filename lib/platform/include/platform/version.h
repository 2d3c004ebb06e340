// Who built this program, when, and which version: for the -v option, the
// start and exit log lines and the version file. Fixed when the tree is configured.
#pragma once

#include <cstdio>

const char *tvx_build_version(void);
const char *tvx_build_date(void);
const char *tvx_builder(void);

// The product name of the banner; by default the program name in capitals.
void tvx_set_product(const char *name);
const char *tvx_product(void);

// Prints "<PRODUCT> release <version> built by <builder> on <date>" to out
// (standard output when null); verbosity 2 adds the compiler and build type.
// With xml set the same facts come as one <software-information> element.
void show_daemon_version(FILE *out, int verbosity, int xml);

// This platform never runs under an XML management interface.
bool xml_on_board(void);
