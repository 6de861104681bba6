#include "core/switches.h"

uint32_t ignore_fb_token_verification;
uint32_t ignore_fb_token_verification_result;
