// Transition effects (IMG_display_ddb_effect).
#pragma once

namespace brv {

// IMG_display_ddb_effect: 0, IMG_ERR_MEMORY, -8 for a bitmap whose size
// cannot be read, IMG_ERR_STOPPED when the status callback stopped it.
int display_ddb_effect(void *ddb, void *dc, int left, int top, int code);

// Piece copies made by effects since start: a test hook.
extern int effect_copies;

}  // namespace brv
