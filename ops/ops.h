// Every generic operation family, for the generated entry points.
#ifndef OVRIN_OPS_OPS_H
#define OVRIN_OPS_OPS_H

#include "ops/composite/composite.h"
#include "ops/enum/enum.h"
#include "ops/record/access.h"
#include "ops/record/lifecycle.h"
#include "ops/record/value.h"
#include "ops/text/json.h"
#include "ops/text/text.h"
#include "ops/wire/wire.h"

#endif
