#include "utl_object.h"

UtlObject::~UtlObject() = default;
