#pragma once
// Everything of the core library at once.

#include <zorl/core/codec.h>
#include <zorl/core/color.h>
#include <zorl/core/color_profile.h>
#include <zorl/core/geometry.h>
#include <zorl/core/image_data.h>
#include <zorl/core/image_utils.h>
#include <zorl/core/mask_image.h>
#include <zorl/core/pixel.h>
#include <zorl/core/simd_pixel.h>
#include <zorl/core/tiled_image_data.h>
#include <zorl/core/types.h>
#include <zorl/core/affine_transform.h>
#include <zorl/core/crop_description.h>
#include <zorl/core/image.h>
#include <zorl/core/image_transform_settings.h>
