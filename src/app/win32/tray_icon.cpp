#include "app/win32/tray_icon.h"

void tray_icon_redraw() {}
void tray_icon_remove() {}
