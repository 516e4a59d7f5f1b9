#include "app/application.h"

int main(int argc, char** argv) { return mcd::MainEntry(argc, argv); }
