#pragma once

namespace vantrel {

// Opens those of the standard descriptors that are closed, so that none that a
// program opens later ever takes the place of one.
void OpenMissingStandardDescriptors();

}  // namespace vantrel
