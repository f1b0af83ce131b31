#pragma once
// Random value texts for writes: values of the item's type in every range, and now and then a text the
// plugin must refuse or read as 0.

#include <QString>

#include "model/model_config.h"
#include "model/model_random.h"

namespace model_check {

QString randomValueText(const ItemModel& item, Random& random);

}  // namespace model_check
