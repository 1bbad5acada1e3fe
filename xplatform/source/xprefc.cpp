#include "xprefc.h"

// Here, so that the virtual table has one home.
tag_st_obj::~tag_st_obj() {}
