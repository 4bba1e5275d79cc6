// The build-version marker and number, under the names tools and shims look for.
#include "tavlo/TavloVersion.h"

extern "C" {
__attribute__((used)) const unsigned char Tavlo_tvOSVersionString[] =
    "@(#)PROGRAM:Tavlo_tvOS  PROJECT:TavloUniversal-1"
    "\n";
__attribute__((used)) const double Tavlo_tvOSVersionNumber = 1.0;
}
