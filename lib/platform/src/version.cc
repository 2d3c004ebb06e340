// Build identity and the version banner.
#include "platform/version.h"

#include <cctype>
#include <cerrno>
#include <string>

#include "build_info.h"

namespace {
std::string product;
}

const char *tvx_build_version(void) { return TVX_BUILD_VERSION; }
const char *tvx_build_date(void) { return TVX_BUILD_DATE; }
const char *tvx_builder(void) { return TVX_BUILDER; }

void tvx_set_product(const char *name) { product = name ? name : ""; }

const char *tvx_product(void) {
  if (product.empty())
    for (const char *p = program_invocation_short_name; *p; p++)
      product += static_cast<char>(toupper(static_cast<unsigned char>(*p)));
  return product.c_str();
}

void show_daemon_version(FILE *out, int verbosity, int xml) {
  if (!out) out = stdout;
  if (xml) {
    fprintf(out,
            "<software-information>\n"
            "  <product>%s</product>\n  <version>%s</version>\n"
            "  <builder>%s</builder>\n  <build-date>%s</build-date>\n",
            tvx_product(), TVX_BUILD_VERSION, TVX_BUILDER, TVX_BUILD_DATE);
    if (verbosity > 1)
      fprintf(out, "  <compiler>%s</compiler>\n  <build-type>%s</build-type>\n", TVX_COMPILER,
              TVX_BUILD_TYPE);
    fprintf(out, "</software-information>\n");
  } else {
    fprintf(out, "%s release %s built by %s on %s\n", tvx_product(), TVX_BUILD_VERSION, TVX_BUILDER,
            TVX_BUILD_DATE);
    if (verbosity > 1) fprintf(out, "    compiler %s, build type %s\n", TVX_COMPILER, TVX_BUILD_TYPE);
  }
  fflush(out);
}

bool xml_on_board(void) { return false; }
