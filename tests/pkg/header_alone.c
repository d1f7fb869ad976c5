/* Compiled with -include <public header>: the header alone must compile. */
typedef int header_alone_unit;
