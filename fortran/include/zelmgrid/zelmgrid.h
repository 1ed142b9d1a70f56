/* zelmgrid.h: the file routines of mod_zelmgrid as C functions.
 *
 * This is the layer under the Fortran module mod_zelmgrid (mod_zelmgrid.f90), usable from C and
 * any language that calls C. Each zelm_NAME function is the routine NAME with the same arguments
 * in the same order, every one by address:
 *
 *   - file names are 40 characters, blank-padded, not terminated;
 *   - integers are int (4 bytes); logicals are int, of which only the lowest bit is tested;
 *   - arrays that a routine allocates and hands to its caller (the readers' outputs, and the
 *     one-row arrays of the next-variable readers) are Fortran allocatable arrays, passed as
 *     C descriptors (ISO_Fortran_binding.h): the routine allocates them with CFI_allocate, lower
 *     bounds 1, and the caller releases them with CFI_deallocate. A descriptor must be an
 *     allocatable one of the routine's type and rank (CFI_type_int or CFI_type_float), unallocated
 *     unless the routine's caller means it to find the array allocated;
 *   - arrays that a routine only reads or updates in place are contiguous, column-major, and
 *     followed by their extents (int64_t each, rank 1 or 2); an extent below 0 counts as 0.
 *
 * Behaviour, units, messages and failures are the routines' own (mod_zelmgrid.hpp): a failed read
 * calls mod_gridvars' dispfilereaderror and the function returns; a failed open, write or close
 * goes to the failure handler. Every function hands what it wrote to the operating system before
 * it returns, also on the units it leaves connected.
 *
 * mod_gridvars: the routines call the services and read the variables of the host's Fortran
 * module mod_gridvars (the host's own, or the bundled one); see fortran/README.md.
 *
 * Not reentrant: one call at a time, as the routines. */
#ifndef ZELMGRID_ZELMGRID_H
#define ZELMGRID_ZELMGRID_H

#include <ISO_Fortran_binding.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- module variables (the routines' own storage) ------------------------------------------ */

extern int zelm_rstype, zelm_lastcyc, zelm_nfree;
extern double zelm_dtime, zelm_dgamma, zelm_drgas, zelm_dr0, zelm_drm0, zelm_dp0, zelm_dvar;
#ifndef __cplusplus
/* The pix texts (the Fortran common block /zelm_pixtext/) and the Tecplot export's shared blocks
 * (the common blocks /const/ and /formt/). C++ sees them with the library's types through
 * mod_zelmgrid.hpp. */
extern struct zelm_pixtext {
  char string[25];
  char strfree[20][25];
} zelm_pixtext_;
extern int const_[8];
extern int formt_[5];
#endif

/* ---- grid files ---------------------------------------------------------------------------- */

void zelm_readzelmgridheader(const char* filename, const int* filetype, int* ndim, int* nzones, int* ngridaux,
                             CFI_cdesc_t* nptsz, CFI_cdesc_t* ncellsz);

void zelm_readzelmgrid(const char* filename, const int* filetype, const int* dblprec, int* ndim, int* nzones,
                       int* ngridaux, CFI_cdesc_t* x, CFI_cdesc_t* nptsz, CFI_cdesc_t* nfacesz,
                       CFI_cdesc_t* ncellsz, CFI_cdesc_t* mnpfz, CFI_cdesc_t* mfpcz, CFI_cdesc_t* npf,
                       CFI_cdesc_t* ifnode, CFI_cdesc_t* ifcell, const int* readconn);

void zelm_writezelmgrid(const char* filename, const int* filetype, const int* dblprec, const int* ndim,
                        const int* nzones, const int* ngridaux, const float* x, int64_t x1, int64_t x2,
                        const int* nptsz, int64_t nptsz1, const int* nfacesz, int64_t nfacesz1,
                        const int* ncellsz, int64_t ncellsz1, const int* mnpfz, int64_t mnpfz1,
                        const int* mfpcz, int64_t mfpcz1, const int* npf, int64_t npf1, const int* ifnode,
                        int64_t ifnode1, int64_t ifnode2, const int* ifcell, int64_t ifcell1,
                        int64_t ifcell2);

/* ---- restart files ------------------------------------------------------------------------- */

void zelm_readzelmrstrtfile(const char* filename, const int* filetype, const int* dblprec, const int* nzones,
                            const int* ncellsz, int64_t ncellsz1, CFI_cdesc_t* q);
void zelm_readnextzelmrstrtvar(const int* ivar, const char* filename, const int* filetype, const int* dblprec,
                               const int* nzones, const int* ncellsz, int64_t ncellsz1, CFI_cdesc_t* q);
void zelm_writezelmrstrtfile(const char* filename, const int* filetype, const int* dblprec, const int* nzones,
                             const int* ncellsz, int64_t ncellsz1, const float* q, int64_t q1, int64_t q2);
void zelm_writenextzelmrstrtvar(const int* ivar, const char* filename, const int* filetype,
                                const int* dblprec, const int* nzones, const int* ncellsz, int64_t ncellsz1,
                                const float* q, int64_t q1, int64_t q2);

/* ---- pix files ----------------------------------------------------------------------------- */

void zelm_readzelmpixfile(const char* filename, const int* filetype, const int* dblprec, const int* nzones,
                          const int* nptsz, int64_t nptsz1, CFI_cdesc_t* pix);
void zelm_readnextzelmpixvar(const int* ivar, const char* filename, const int* filetype, const int* dblprec,
                             const int* nzones, const int* nptsz, int64_t nptsz1, CFI_cdesc_t* pix);
void zelm_writezelmpixfile(const char* filename, const int* filetype, const int* dblprec, const int* nzones,
                           const int* nptsz, int64_t nptsz1, const float* pix, int64_t pix1, int64_t pix2);
void zelm_writenextzelmpixvar(const int* ivar, const char* filename, const int* filetype, const int* dblprec,
                              const int* nzones, const int* nptsz, int64_t nptsz1, const float* pix,
                              int64_t pix1, int64_t pix2);

/* ---- Tecplot export (ifcell is updated in place) ------------------------------------------- */

void zelm_writetecplotfile(const char* filename, const int* ndim, const int* nzones, const double* x,
                           int64_t x1, int64_t x2, const int* nptsz, int64_t nptsz1, const int* nfacesz,
                           int64_t nfacesz1, const int* ncellsz, int64_t ncellsz1, const int* mnpfz,
                           int64_t mnpfz1, const int* mfpcz, int64_t mfpcz1, const int* npf, int64_t npf1,
                           const int* ifnode, int64_t ifnode1, int64_t ifnode2, int* ifcell, int64_t ifcell1,
                           int64_t ifcell2, const double* qnode, int64_t qnode1, int64_t qnode2);

/* ---- beyond the routines ------------------------------------------------------------------- */

/* Closes one of the routines' units (harmless when it is not connected). The units are the
 * library's, not the Fortran runtime's: a Fortran CLOSE statement does not reach them. */
void zelm_close(const int* unit);

/* Copies the account of the last failed read (file, encoding, record, byte offset, cause) into
 * buf, blank-padded to len characters (Fortran style, not terminated); returns its full length. */
size_t zelm_lastreaderror(char* buf, size_t len);

/* The failure handler: called with a one-sentence message (not terminated) when an open, write or
 * close fails. It must not return: it ends the run (a Fortran STOP, exit) or leaves by longjmp.
 * NULL restores the default, which prints the message and exits with status 2. */
typedef void (*zelm_failurehandler)(const char* message, size_t length);
void zelm_setfailurehandler(zelm_failurehandler handler);

/* The largest allocation in bytes; a larger request fails with an allocation status as if memory
 * had run out (no limit by default). For tests of the routines' allocation failures. */
void zelm_setallocationlimit(const size_t* bytes);

#ifdef __cplusplus
}
#endif

#endif
