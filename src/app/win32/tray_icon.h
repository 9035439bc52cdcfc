// The notification-area icon. Its menu and pictures are still to come: for
// now these keep the places where the window and the shutdown call them.
#pragma once

void tray_icon_redraw();
void tray_icon_remove();
