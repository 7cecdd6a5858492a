#ifndef TAMREL_DDI_TAMREL_EXPORT_H_
#define TAMREL_DDI_TAMREL_EXPORT_H_

// Marks the few symbols the plug-in exports; everything else is hidden.
#if defined(__GNUC__)
#define TAMREL_EXPORT __attribute__((visibility("default")))
#else
#define TAMREL_EXPORT
#endif

#endif  // TAMREL_DDI_TAMREL_EXPORT_H_
