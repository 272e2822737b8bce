#include "capture_profile/CSettings.h"

void CSettings::Init() {
    numEncoders = 0;
}
