#include "tesk_main.h"

int main()
{
    return tesk_run();
}
