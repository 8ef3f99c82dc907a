// The one system property the library reads.
#pragma once

namespace noxel {

// Resolves the property interface if no earlier call did, and sets debugLog from "persist.camera.rtsp.log" when it is
// resolved now. Any thread.
void readDebugProperty();

// 0 when property_get was resolved, 1 otherwise (logged). Without a lock: readDebugProperty holds it.
int loadPropertyInterface();

// Tests only: the next readDebugProperty resolves again.
void forgetPropertyInterface();

}  // namespace noxel
