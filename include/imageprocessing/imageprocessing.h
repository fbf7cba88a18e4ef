#pragma once
// Everything the image-processing library exports, and the sibling-library types that
// appear in its signatures.

#include <zorl/common/managed_memory.h>
#include <zorl/common/memory_manager.h>
#include <zorl/core/core.h>
#include <zorl/halton/halton.h>
#include <zorl/logger/logger.h>

#include <imageprocessing/status.h>
#include <imageprocessing/conversion.h>
#include <imageprocessing/scaling.h>
#include <imageprocessing/blending.h>
#include <imageprocessing/auto_exposure.h>
#include <imageprocessing/transform_computer.h>
#include <imageprocessing/image_data_compute_unit.h>
#include <imageprocessing/guided_filter.h>
#include <imageprocessing/compression.h>
#include <imageprocessing/tiled_mask_image.h>
#include <imageprocessing/tiled_image_data_stores.h>
