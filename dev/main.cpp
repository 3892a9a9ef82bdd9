// The technician's menu as a program.

#include <stdio.h>

#include "dev/DEV.h"

int main() {
    tDevTestMenu menu = {"/dev/sg0", "/dev/sda", "/dev/sda", 8, 0};
    return Dev_RunTestMenu(&menu, stdin);
}
