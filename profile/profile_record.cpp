#include "profile/profile_record.h"

namespace quilmrun {

ProfileRecord profileRecord;

}  // namespace quilmrun
