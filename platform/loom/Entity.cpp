#include "loom/Entity.h"
// Entity and notifiee machinery is header-only templates; this unit anchors the library.
