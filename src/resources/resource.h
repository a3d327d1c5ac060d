/* Resource identifiers shared by the resource script and the driver. */
#ifndef TAMRIX_RESOURCE_H
#define TAMRIX_RESOURCE_H

#define IDS_PRODUCT 1
#define IDS_COMMAND_TABLE 2
#define IDR_COMMAND_TABLE 96

#endif
