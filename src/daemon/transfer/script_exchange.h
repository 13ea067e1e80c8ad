// Actions 2 and 4: the four hand-editable scripts under /etc/config.
#pragma once

int send_script(int fd);
int receive_script(int fd);
