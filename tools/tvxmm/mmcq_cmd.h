// tvxmm mmcq show|peek NAME: see docs/mmf.md.
#pragma once

int mmcq_main(int argc, char **argv, int (*misuse)(const char *));
