#ifndef FLEET_PAGE_H
#define FLEET_PAGE_H

// The page for people, Page.html, which gets what it shows from status.json.
extern const char* const page;

#endif
